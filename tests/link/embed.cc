#include <tarnvte/webm_stream.h>

#include <cstdio>

using LibTarnVTE::VTEInitArgument;
using LibTarnVTE::VTEStream;
using LibTarnVTE::WebMStream;

// Writes the WebM form of a video file to standard output.
int main(int argc, char** argv) {
  if (argc != 4) {
    std::fprintf(stderr, "usage: embed FILE PROFILES KEY\n");
    return 2;
  }
  const std::string id = VTEStream::VTE_Init(VTEInitArgument(argv[1], "WEBM", argv[2], argv[3]));
  if (id.empty()) {
    std::fprintf(stderr, "%s: not a video that can be opened\n", argv[1]);
    return 1;
  }
  WebMStream stream(id);
  bool ok = stream.Init("") && stream.Transcoding(0);
  if (!ok) std::fprintf(stderr, "%s: refused: %s\n", argv[1], stream.GetErrorString().c_str());
  char buffer[65536];
  ssize_t length;
  while (ok && (length = stream.Read(buffer, sizeof buffer)) != 0) {
    ok = length > 0 && std::fwrite(buffer, 1, length, stdout) == static_cast<size_t>(length);
  }
  stream.Close();
  return ok ? 0 : 1;
}
