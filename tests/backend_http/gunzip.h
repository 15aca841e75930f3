// The other way of what the server compresses.
#pragma once

#include <zlib.h>

#include <string>

namespace test {

// "not gzip" for what is none, or only a part.
inline std::string Gunzip(const std::string& packed) {
  z_stream stream{};
  if (inflateInit2(&stream, MAX_WBITS + 16) != Z_OK) return "no memory";
  stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(packed.data()));
  stream.avail_in = static_cast<uInt>(packed.size());
  std::string text;
  char buffer[4096];
  int status = Z_OK;
  while (status == Z_OK) {
    stream.next_out = reinterpret_cast<Bytef*>(buffer);
    stream.avail_out = sizeof buffer;
    status = inflate(&stream, Z_NO_FLUSH);
    text.append(buffer, sizeof buffer - stream.avail_out);
  }
  inflateEnd(&stream);
  return status == Z_STREAM_END && stream.avail_in == 0 ? text : "not gzip";
}

}  // namespace test
