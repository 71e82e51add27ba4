#include "qvcore/queue/QVDataCompression.h"

#include <zlib.h>

#include <cstring>
#include <limits>
#include <new>
#include <stdexcept>

#include "platform/host/QVSwallowed.h"

namespace qv {

namespace {

constexpr size_t kGrowth = 16384;
// The version the stream layout was written against; zlib checks only that
// the major number matches its own.
constexpr const char* kZlibVersion = "1.2.11";
constexpr int kDefaultLevel = -1;
constexpr int kDeflateMethod = 8;
constexpr int kGzipWindowBits = 15 + 16;  // a 32 KiB window, gzip framing
constexpr int kMemoryLevel = 8;
constexpr int kDefaultStrategy = 0;

}  // namespace

// Constant initialisation: bound before any code of the process runs.
QVDataCompression::DeflateInitFunctor QVDataCompression::deflateInitQVDCFunctor = &deflateInit2_;
QVDataCompression::DeflateFunctor QVDataCompression::deflateQVDCFunctor = &deflate;
QVDataCompression::DeflateEndFunctor QVDataCompression::deflateEndQVDCFunctor = &deflateEnd;

void QVDataCompression::load() {
  deflateInitQVDCFunctor = &deflateInit2_;
  deflateQVDCFunctor = &deflate;
  deflateEndQVDCFunctor = &deflateEnd;
}

std::shared_ptr<const std::string> QVDataCompression::compressData(
    const std::shared_ptr<const std::string>& data) {
  if (!data || data->empty()) return data;
  if (data->size() > std::numeric_limits<uInt>::max()) return data;

  z_stream stream;
  std::memset(&stream, 0, sizeof stream);
  stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(data->data()));
  stream.avail_in = static_cast<uInt>(data->size());
  if (deflateInitQVDCFunctor(&stream, kDefaultLevel, kDeflateMethod, kGzipWindowBits, kMemoryLevel,
                             kDefaultStrategy, kZlibVersion,
                             static_cast<int>(sizeof(z_stream))) != Z_OK) {
    return data;
  }
  try {
    auto output = std::make_shared<std::string>(kGrowth, '\0');
    for (;;) {
      if (stream.total_out >= output->size()) output->resize(output->size() + kGrowth);
      stream.next_out = reinterpret_cast<Bytef*>(output->data()) + stream.total_out;
      stream.avail_out = static_cast<uInt>(output->size() - stream.total_out);
      const int status = deflateQVDCFunctor(&stream, Z_FINISH);
      if (status == Z_OK) continue;
      if (status == Z_STREAM_END) {
        // The one call that goes to zlib directly rather than through the
        // replaceable pointer; the finished stream is always zlib's own.
        deflateEnd(&stream);
        output->resize(stream.total_out);
        return output;
      }
      deflateEndQVDCFunctor(&stream);
      return data;
    }
  } catch (const std::exception& e) {
    noteSwallowed(__func__, e);
    // Release zlib's state too, or a failed allocation would leak it.
    deflateEndQVDCFunctor(&stream);
    return data;
  }
}

}  // namespace qv
