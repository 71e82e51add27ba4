#include "qvcore/platform/QVDigest.h"

#include <openssl/evp.h>

namespace qv {

std::string QVDigest::md5HexString(std::string_view bytes) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  if (EVP_Digest(bytes.data(), bytes.size(), digest, &length, EVP_md5(), nullptr) != 1) return "";
  static constexpr char kHex[] = "0123456789abcdef";
  std::string text;
  text.reserve(2 * length);
  for (unsigned int i = 0; i < length; ++i) {
    text.push_back(kHex[digest[i] >> 4]);
    text.push_back(kHex[digest[i] & 0x0f]);
  }
  return text;
}

}  // namespace qv
