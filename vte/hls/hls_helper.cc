#include "tarnvte/hls_helper.h"

#include <fcntl.h>

#include <cstdint>
#include <ext/stdio_filebuf.h>
#include <iomanip>
#include <locale>

#include "base/file_io.h"
#include "base/truncate.h"

namespace LibTarnVTE {

HLSHelper::HLSHelper(const std::string& path, ManifestType type, const std::string& url_prefix)
    : type(type), url_prefix(url_prefix) {
  // A file stream's own open leaves the descriptor to every program that is executed meanwhile.
  const int fd = tarn::OpenRetry(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0666);
  __gnu_cxx::stdio_filebuf<char> opened(fd, std::ios_base::out);
  rdbuf()->swap(opened);
  if (!is_open()) setstate(std::ios_base::failbit);
  imbue(std::locale::classic());
}

HLSHelper::~HLSHelper() = default;

void HLSHelper::SetFragmentIdQuote(const std::string& quote) { fragment_id_quote = quote; }

void HLSHelper::WriteHeader(int target_duration) {
  *this << "#EXTM3U\n"
           "#EXT-X-VERSION:3\n"
           "#EXT-X-TARGETDURATION:"
        << target_duration << "\n#EXT-X-MEDIA-SEQUENCE:0\n";
  if (type == Subtitle) *this << "#EXT-X-PLAYLIST-TYPE:VOD\n#EXT-X-ALLOW-CACHE:YES\n";
}

void HLSHelper::WriteFragmentInfo(const HLSFragment& fragment) {
  *this << "#EXTINF:" << std::fixed << std::setprecision(3) << fragment.duration << ",\n"
        << url_prefix;
  if (type == Subtitle) {
    *this << "&preview=false&output_webvtt=true&webvtt_start_time="
          << tarn::TruncateTo<int64_t>(fragment.start)
          << "&webvtt_end_time=" << tarn::TruncateTo<int64_t>(fragment.end);
  } else {
    const char old_fill = fill('0');
    *this << "&fragment_id=" << fragment_id_quote << std::setw(5) << fragment.index
          << fragment_id_quote;
    fill(old_fill);
  }
  *this << '\n';
}

void HLSHelper::WriteEnder() { *this << "#EXT-X-ENDLIST\n"; }

}  // namespace LibTarnVTE
