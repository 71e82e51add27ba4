#pragma once

#include <string>
#include <string_view>

#include "qvcore/QVExport.h"

namespace qv {

// Message digests through OpenSSL's EVP interface.
class QV_EXPORT QVDigest {
 public:
  // MD5 of bytes (all of them, zero bytes included) as 32 lower-case
  // hexadecimal characters in digest order; empty when the digest is not
  // available (an OpenSSL configured without MD5).
  static std::string md5HexString(std::string_view bytes);
};

}  // namespace qv
