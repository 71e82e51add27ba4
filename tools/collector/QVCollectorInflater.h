#pragma once

#include <cstddef>
#include <optional>
#include <string>

namespace qv::collector {

// Undoes the Content-Encoding of a request body with zlib.
class QVCollectorInflater {
 public:
  enum class Format {
    kGzip,     // one or more gzip members, as RFC 1952 writes them
    kDeflate,  // a zlib stream, or a bare deflate stream as some clients send
  };

  struct Result {
    std::optional<std::string> bytes;  // none when the stream is unusable
    std::string problem;               // why, when there are no bytes
    bool tooLarge = false;             // it inflates past maxOutput
  };

  // Inflates a slice at a time and stops once past maxOutput, so that a
  // small hostile body cannot make the collector (and its database)
  // swallow gigabytes.
  static Result inflate(const std::string& in, Format format, size_t maxOutput);

 private:
  static Result inflateWith(const std::string& in, int windowBits, const char* name,
                            size_t maxOutput);
};

}  // namespace qv::collector
