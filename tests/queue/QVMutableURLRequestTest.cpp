#include "qvcore/platform/QVMutableURLRequest.h"

#include <gtest/gtest.h>

namespace qv {
namespace {

TEST(QVMutableURLRequestTest, UrlsNeedSchemeHostAndOnlyUrlCharacters) {
  for (const char* url : {"http://127.0.0.1:8080/p?a=1?b=2", "https://h", "ftp://h/x",
                          "http://[::1]/%41%2f", "http://h/p?q=a'b(c)*!$,;:@"}) {
    EXPECT_TRUE(QVMutableURLRequest::isValidURL(url)) << url;
  }
  for (const char* url : {"", "not a url", "/relative/path", "http://", "mailto:someone",
                          "http://h/a b", "http://h/\"q\"", "http://h/{x}", "http://h/%4",
                          "http://h/%zz", "http://h/\x01", "http://h/\xC3\xA9"}) {
    EXPECT_EQ(QVMutableURLRequest::requestWithURL(url), nullptr) << url;
  }
}

}  // namespace
}  // namespace qv
