#pragma once

#include <zlib.h>

#include <optional>
#include <string>

namespace qv::test {

// The bytes a gzip member holds, read with zlib's own inflater; none unless
// the input is one complete, valid gzip member.
inline std::optional<std::string> gunzip(const std::string& in) {
  z_stream stream{};
  if (inflateInit2(&stream, 15 + 16) != Z_OK) return std::nullopt;
  stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(in.data()));
  stream.avail_in = static_cast<uInt>(in.size());
  std::string out;
  char buffer[65536];
  int status = Z_OK;
  while (status == Z_OK) {
    stream.next_out = reinterpret_cast<Bytef*>(buffer);
    stream.avail_out = sizeof buffer;
    status = inflate(&stream, Z_NO_FLUSH);
    out.append(buffer, sizeof buffer - stream.avail_out);
  }
  inflateEnd(&stream);
  if (status != Z_STREAM_END || stream.avail_in != 0) return std::nullopt;
  return out;
}

// The gzip form of in, made here with zlib's defaults (level 6, a 32 KiB
// window, memory level 8), so that a test can tell which of the two forms is
// shorter without asking the library.
inline std::string gzip(const std::string& in) {
  z_stream stream{};
  if (deflateInit2(&stream, Z_DEFAULT_COMPRESSION, Z_DEFLATED, 15 + 16, 8, Z_DEFAULT_STRATEGY) !=
      Z_OK) {
    return "";
  }
  std::string out(deflateBound(&stream, in.size()), '\0');
  stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(in.data()));
  stream.avail_in = static_cast<uInt>(in.size());
  stream.next_out = reinterpret_cast<Bytef*>(out.data());
  stream.avail_out = static_cast<uInt>(out.size());
  const bool done = deflate(&stream, Z_FINISH) == Z_STREAM_END;
  out.resize(stream.total_out);
  deflateEnd(&stream);
  return done ? out : "";
}

}  // namespace qv::test
