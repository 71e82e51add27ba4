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

}  // namespace qv::test
