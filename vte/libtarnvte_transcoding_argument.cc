// The command lines of the two transcoder programs.
#include "base/log.h"
#include "base/paths.h"
#include "base/text.h"
#include "tarnvte/argument_helper.h"
#include "tarnvte/libtarnvte.h"
#include "tarnvte/platform_utils.h"
#include "tarnvte/vteutils.h"
#include "vte/ac3_copy.h"

namespace LibTarnVTE {
namespace {

constexpr char kLogUnit[] = "libtarnvte_transcoding_argument";

using Arguments = std::vector<std::string>;
using librb::util::PlatformUtils;

void Append(Arguments& list, const Arguments& more) {
  list.insert(list.end(), more.begin(), more.end());
}

// The VA-API encoder cannot keep up with more than this.
bool NeedsLowerFrameRate(const VideoMetaData& metadata) {
  return metadata.GetVideoFramerate() > 30.0f ||
         ArgumentHelper::Is4kVideo(metadata.GetVideoResolutionX(), metadata.GetVideoResolutionY());
}

// The launcher's audio options: nothing leaves the choice to the launcher.
Arguments GstreamerAudioCodec(const std::string& requested, const std::string& audio_id,
                              const std::string& device, const ArgumentHelper& helper) {
  const bool chromecast = device == "chromecast";
  if (!chromecast && MayCopyAc3(requested, audio_id, helper)) return {"--acodec", "copy"};
  if (chromecast || requested == "aac") return {"--acodec", "aac"};
  return {};
}

}  // namespace

std::vector<std::string> VTEStream::CalculateFFmpegTranscodingArgument(
    bool copyts, const std::vector<std::string>& options, const std::string& output) const {
  const int seek_time = GetSeekTimeInMillisecond();
  if (stream_type.empty() || stream_id.empty() || profile_value.empty() || seek_time < 0) return {};
  const ArgumentHelper helper(metadata);
  const std::string source = metadata.GetFilePath();
  if (source.empty()) return {};
  const PlatformUtils& host = PlatformUtils::GetInst();

  Arguments list{host.GetFFmpegPath(), "-ss", tarn::FormatMillisecondsAsSeconds(seek_time)};
  // The platform's own decoder neither turns pictures nor reads FLV.
  if (is_hardware && !is_vaapi_ffmpeg && metadata.GetContainer() != "flv" &&
      GetMetaVideoRotate() == 0) {
    list.push_back("-prefer_smd");
  }
  if (is_vaapi_ffmpeg) {
    Append(list, {"-vaapi_device", tarn::paths::kVaapiDevice, "-hwaccel", "vaapi",
                  "-hwaccel_output_format", "vaapi", "-noautorotate"});
  }
  if (copyts) list.push_back("-copyts");
  Append(list, {"-i", source});
  if (is_vaapi_ffmpeg && NeedsLowerFrameRate(metadata)) Append(list, {"-r", "24"});
  Append(list, options);
  if (!host.IsFFmpeg2()) Append(list, {"-max_muxing_queue_size", "1024"});

  const Arguments maps = helper.GetVideoAudioMap(GetRequestAudioID());
  if (maps.empty() && stream_type == "HLS") {
    TARN_LOG_ERR("VTE - Fail GetVideoAudioMap.");
    return {};
  }
  Append(list, maps);
  list.push_back(output);
  return list;
}

std::vector<std::string> VTEStream::CalculateGstreamerTranscodingArgument(
    const std::vector<std::string>& options, const std::string& output, bool shiftpts) const {
  const int seek_time = GetSeekTimeInMillisecond();
  if (stream_type.empty() || stream_id.empty() || profile_value.empty() || seek_time < 0) return {};
  const ArgumentHelper helper(metadata);
  const std::string source = metadata.GetFilePath();
  if (source.empty()) return {};

  Arguments list{kGstreamBin, "-s", std::to_string(seek_time / 1000), "-i", source};
  Append(list, options);
  if (shiftpts) list.push_back("--shiftpts");
  Append(list, {"-o", output});
  const std::string audio_id = GetRequestAudioID();
  Append(list, helper.GetGstreamAudioMap(audio_id));
  Append(list, GstreamerAudioCodec(ReadFile(GetVTEFileFullPath("audio_format")), audio_id,
                                   metadata.GetDevice(), helper));
  return list;
}

}  // namespace LibTarnVTE
