#include "backend/http/gzip.h"

#include <zlib.h>

#include <algorithm>
#include <limits>
#include <new>

namespace tarnbackend::http {
namespace {

// Answers are made while others wait: nearly the size of the default level, in half its time.
constexpr int kLevel = 4;
constexpr int kGzipFormat = 16;
constexpr int kMemoryLevel = 8;

}  // namespace

std::string Gzip(std::string_view text) {
  z_stream stream{};
  if (deflateInit2(&stream, kLevel, Z_DEFLATED, MAX_WBITS + kGzipFormat, kMemoryLevel,
                   Z_DEFAULT_STRATEGY) != Z_OK) {
    throw std::bad_alloc();
  }
  std::string packed;
  char buffer[16 * 1024];
  int status = Z_OK;
  while (status != Z_STREAM_END) {
    if (stream.avail_in == 0) {
      const size_t piece = std::min<size_t>(text.size(), std::numeric_limits<uInt>::max());
      stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(text.data()));
      stream.avail_in = static_cast<uInt>(piece);
      text.remove_prefix(piece);
    }
    stream.next_out = reinterpret_cast<Bytef*>(buffer);
    stream.avail_out = sizeof buffer;
    status = deflate(&stream, text.empty() ? Z_FINISH : Z_NO_FLUSH);
    packed.append(buffer, sizeof buffer - stream.avail_out);
  }
  deflateEnd(&stream);
  return packed;
}

}  // namespace tarnbackend::http
