#pragma once

#include <memory>
#include <string>

#include "qvcore/QVExport.h"

// zlib's stream type, named without including zlib.h, so that the pointers
// below have zlib's own signatures while zlib stays a private dependency.
struct z_stream_s;

namespace qv {

// Gzip compression of request bodies. zlib is reached through three
// replaceable function pointers, bound to zlib before anything runs, so that
// a test can make any step fail. Replace them only while nothing compresses.
class QV_EXPORT QVDataCompression {
 public:
  using DeflateInitFunctor = int (*)(z_stream_s* stream, int level, int method, int windowBits,
                                     int memLevel, int strategy, const char* version,
                                     int streamSize);
  using DeflateFunctor = int (*)(z_stream_s* stream, int flush);
  using DeflateEndFunctor = int (*)(z_stream_s* stream);

  static DeflateInitFunctor deflateInitQVDCFunctor;  // zlib's deflateInit2_
  static DeflateFunctor deflateQVDCFunctor;          // zlib's deflate
  static DeflateEndFunctor deflateEndQVDCFunctor;    // zlib's deflateEnd

  // Binds the three pointers to zlib again. They are bound at start-up
  // already; this undoes a replacement.
  static void load();

  // The input as one gzip member (default level, no file name, no time
  // stamp). Null gives null and an empty buffer comes back as it is. When it
  // cannot be compressed the input itself comes back, so callers tell
  // success by a shorter result. Inputs of 4 GiB and more, which zlib cannot
  // take in one call, come back as they are.
  static std::shared_ptr<const std::string> compressData(
      const std::shared_ptr<const std::string>& data);
};

}  // namespace qv
