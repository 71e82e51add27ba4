#include "QVCollectorInflater.h"

#include <zlib.h>

#include <algorithm>
#include <climits>

namespace qv::collector {

namespace {

constexpr int kGzipWindow = 15 + 16;
constexpr int kZlibWindow = 15;
constexpr int kRawWindow = -15;

// A z_stream that is always ended, whichever way the inflation leaves.
class Stream {
 public:
  explicit Stream(int windowBits) { ok_ = inflateInit2(&z_, windowBits) == Z_OK; }
  ~Stream() {
    if (ok_) inflateEnd(&z_);
  }
  Stream(const Stream&) = delete;
  Stream& operator=(const Stream&) = delete;
  bool ok() const { return ok_; }
  z_stream& z() { return z_; }

 private:
  z_stream z_{};
  bool ok_ = false;
};

std::string damaged(const char* name) { return std::string(name) + " stream is damaged"; }

}  // namespace

QVCollectorInflater::Result QVCollectorInflater::inflate(const std::string& in, Format format,
                                                         size_t maxOutput) {
  if (format == Format::kGzip) return inflateWith(in, kGzipWindow, "gzip", maxOutput);
  // "deflate" means a zlib stream; a bare deflate stream fails the header
  // check at once, so it is tried second.
  Result zlib = inflateWith(in, kZlibWindow, "deflate", maxOutput);
  if (zlib.bytes || zlib.tooLarge) return zlib;
  Result raw = inflateWith(in, kRawWindow, "deflate", maxOutput);
  return raw.bytes ? raw : zlib;
}

QVCollectorInflater::Result QVCollectorInflater::inflateWith(const std::string& in, int windowBits,
                                                             const char* name, size_t maxOutput) {
  Stream stream(windowBits);
  if (!stream.ok()) return {std::nullopt, "zlib cannot start inflating"};
  z_stream& z = stream.z();
  z.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(in.data()));
  size_t left = in.size();
  std::string out;
  char buffer[1 << 16];
  int status = Z_OK;
  while (true) {
    // avail_in is 32-bit; feed the body in slices so any size works.
    if (z.avail_in == 0 && left > 0) {
      z.avail_in = static_cast<uInt>(std::min<size_t>(left, UINT_MAX));
      left -= z.avail_in;
    }
    z.next_out = reinterpret_cast<Bytef*>(buffer);
    z.avail_out = sizeof buffer;
    status = ::inflate(&z, Z_NO_FLUSH);
    const size_t produced = sizeof buffer - z.avail_out;
    if (produced > maxOutput - std::min(maxOutput, out.size())) {
      return {std::nullopt,
              std::string(name) + " body inflates past " + std::to_string(maxOutput) + " bytes",
              true};
    }
    out.append(buffer, produced);
    if (status == Z_STREAM_END) {
      // Concatenated gzip members make one body (RFC 1952, 2.2).
      if (windowBits != kGzipWindow || (z.avail_in == 0 && left == 0)) break;
      if (inflateReset(&z) != Z_OK) return {std::nullopt, damaged(name)};
      continue;
    }
    if (status == Z_BUF_ERROR && z.avail_in == 0 && left == 0) {
      return {std::nullopt, std::string(name) + " stream is truncated"};
    }
    if (status != Z_OK && status != Z_BUF_ERROR) return {std::nullopt, damaged(name)};
  }
  const size_t trailing = z.avail_in + left;
  if (trailing > 0) {
    return {std::nullopt,
            std::string(name) + " stream is followed by " + std::to_string(trailing) + " bytes"};
  }
  return {std::move(out), ""};
}

}  // namespace qv::collector
