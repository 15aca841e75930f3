// The playlists of a stream.
#include <algorithm>
#include <cstdint>
#include <map>
#include <string>

#include "base/file_io.h"
#include "base/text.h"
#include "tarnvte/http_live_stream.h"
#include "vte/hls/hls_subtitle.h"
#include "vte/track_object.h"

namespace LibTarnVTE {
namespace {

constexpr char kVideoPlaylist[] = "video.m3u8";
// In seconds: what a position in 32-bit milliseconds reaches. Damaged files claim far more, and
// would make a playlist of hundreds of millions of entries.
constexpr unsigned kMaxDuration = 2'147'483;

// Text values travel as JSON through the newer web API.
const char* Quote(const Json::Value& request) {
  return AdaptStream::IsWebapi5(request) ? "%22" : "";
}

std::string PlaylistName(const std::string& stream_id) { return stream_id + ".m3u8"; }

// A name for each rendition of a group: "eng", "eng-2", "eng-3".
class RenditionNames {
 public:
  std::string Next(const std::string& language) {
    std::string name = language;
    if (const auto known = counters_.find(language); known != counters_.end()) {
      name += "-" + std::to_string(++known->second);
    }
    counters_[name] = 1;
    return name;
  }

 private:
  std::map<std::string, int> counters_;
};

}  // namespace

bool HttpLiveStream::GenPlaylist(const Json::Value& request, ManifestType type) {
  const std::string prefix = type == Subtitle ? GetSubtitleURL(request) : GetStreamURL(request);
  const unsigned duration = metadata.GetDuration();
  if (prefix.empty() || stream_id.empty() || duration == 0 || duration > kMaxDuration) return false;

  const std::string name = type == Subtitle ? kSubtitleTemplate
                           : has_subtitle   ? kVideoPlaylist
                                            : PlaylistName(stream_id);
  HLSHelper writer(GetVTEFileFullPath(name), type, prefix);
  if (!writer.is_open()) return false;
  bool planned = false;
  if (type == Video) {
    writer.SetFragmentIdQuote(Quote(request));
    planned = IsPreAnalysisAvailable() && pre_analysis.WriteManifest(writer);
  }
  if (!planned) WriteManifestByFixedSegmentTime(writer, static_cast<int>(duration));
  // A full disk shows when the last bytes leave the buffer.
  writer.close();
  return writer.good();
}

bool HttpLiveStream::GenIndexPlaylist(const Json::Value& request,
                                      const Json::Value& subtitle_params) const {
  const std::string url = GetStreamURL(request);
  const std::string selected = TrackText(subtitle_params, "subtitle_id");
  if (url.empty() || stream_id.empty() || selected.empty()) return false;
  // An attribute's value ends there.
  if (url.find('"') != std::string::npos) return false;

  const std::string quote = Quote(request);
  const auto subtitles = GetSubtitleMap(selected);
  RenditionNames names;
  std::string text = "#EXTM3U\n\n";
  bool first = true;
  for (const auto& [id, language] : subtitles) {
    const std::string name = names.Next(language);
    text += "#EXT-X-MEDIA:TYPE=SUBTITLES,GROUP-ID=\"subs\",LANGUAGE=\"" + name + "\",NAME=\"" +
            name + "\",DEFAULT=" + (first ? "YES" : "NO") + ",FORCED=NO,URI=\"" + url +
            "&subtitle_id=" + quote + tarn::PercentEncode(id) + quote +
            "&playlist_type=subtitle\"\n";
    first = false;
  }
  text += "\n#EXT-X-STREAM-INF:BANDWIDTH=300000,CODECS=\"mp4a.40.2,avc1.42001e\"";
  if (!subtitles.empty()) text += ",SUBTITLES=\"subs\"";
  text += "\n" + url + "&playlist_type=video\n#EXT-X-ENDLIST\n";
  return tarn::ReplaceFile(GetVTEFileFullPath(PlaylistName(stream_id)), text, 0644);
}

void HttpLiveStream::WriteManifestByFixedSegmentTime(HLSHelper& writer, int duration) const {
  const int segment_time = GetSegmentTime();
  writer.WriteHeader(segment_time);
  // Nothing to play still takes one entry: a playlist without any is refused by players.
  if (duration == 0) writer.WriteFragmentInfo({});
  for (int64_t start = 0; start < duration; start += segment_time) {
    const int64_t end = std::min<int64_t>(start + segment_time, duration);
    HLSFragment fragment;
    fragment.duration = static_cast<double>(end - start);
    fragment.start = static_cast<double>(start);
    fragment.end = static_cast<double>(end);
    fragment.index = static_cast<int>(start / segment_time);
    writer.WriteFragmentInfo(fragment);
  }
  writer.WriteEnder();
}

std::string HttpLiveStream::GetMainfest(const std::string& playlist_type,
                                        const std::string& subtitle_id) {
  if (stream_id.empty()) return "";
  if (playlist_type == "video") return GetVTEFileFullPath(kVideoPlaylist);
  if (playlist_type == "subtitle") return GetSubtitleManifestPath(subtitle_id);
  return GetVTEFileFullPath(PlaylistName(stream_id));
}

}  // namespace LibTarnVTE
