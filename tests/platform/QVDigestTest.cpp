#include "qvcore/platform/QVDigest.h"

#include <gtest/gtest.h>

namespace qv {
namespace {

TEST(QVDigestTest, Md5OfKnownVectorsAndOfEveryByte) {
  EXPECT_EQ(QVDigest::md5HexString(""), "d41d8cd98f00b204e9800998ecf8427e");
  EXPECT_EQ(QVDigest::md5HexString("abc"), "900150983cd24fb0d6963f7d28e17f72");
  EXPECT_EQ(QVDigest::md5HexString("message digest"), "f96b697d7cb7938d525a2f31aaf161d0");
  // Bytes after a zero byte count.
  EXPECT_NE(QVDigest::md5HexString(std::string("abc\0d", 5)), QVDigest::md5HexString("abc"));
}

}  // namespace
}  // namespace qv
