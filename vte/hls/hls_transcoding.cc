// One run of the transcoder: its command line, its processes.
#include <sys/resource.h>

#include <cmath>
#include <cstdio>
#include <optional>
#include <utility>

#include "base/fault_point.h"
#include "base/log.h"
#include "base/process.h"
#include "base/run_as.h"
#include "base/text.h"
#include "base/wait.h"
#include "tarnvte/http_live_stream.h"
#include "tarnvte/platform_utils.h"
#include "tarnvte/trans_loading.h"
#include "tarnvte/vteutils.h"
#include "vte/hls/fragment_id.h"
#include "vte/monitor.h"

namespace LibTarnVTE {
namespace {

using Arguments = std::vector<std::string>;
using librb::Subprocess;
using librb::util::PlatformUtils;

constexpr char kLogUnit[] = "hls_transcoding";

constexpr char kSegmentName[] = "slice";

Arguments SplitProfile(const std::string& profile) { return StringExplode(profile, " \n"); }

// When a monitor was killed, the kernel may still be killing its transcoder, which counts as
// running.
void AwaitAdmission(bool hardware) {
  constexpr int kTries = 20;
  constexpr int kStepMs = 50;
  tarn::ChangeWaiter waiter;
  waiter.WaitUntil([hardware] { return LibReelbay::TransLoading().TransEnable(hardware); }, kTries,
                   kStepMs);
}

}  // namespace

Arguments HttpLiveStream::CalculateFFmpegArgument(const std::string& fragment_id) {
  const std::optional<int> fragment = ParseFragmentId(fragment_id);
  if (profile_value.empty() || !fragment || metadata.GetVideoResolutionX() == 0) return {};
  const std::string audio_codec = GetAndCheckHlsAudioCodec(
      GetRequestAudioID(), ReadFile(GetVTEFileFullPath("audio_format")), metadata);
  Arguments options =
      ForceFFmpegVideoSize(ForceFFmpegAudioFormat(SplitProfile(profile_value), audio_codec), false);
  const auto append = [&options](const std::string& name, const std::string& value) {
    options.push_back(name);
    options.push_back(value);
  };
  if (!is_remux && metadata.GetVideoPixFmt() != "yuv420p") append("-pix_fmt", "yuv420p");
  append("-segment_format", "mpegts");
  append("-segment_list_type", "m3u8");
  append("-hls_seek_time", std::to_string(GetSeekTimeInMillisecond()));
  append("-segment_time", std::to_string(GetSegmentTime()));
  append("-segment_time_delta",
         tarn::FormatMillisecondsAsSeconds(std::llround(GetSegmentTimeDelta(*fragment) * 1000)));
  append("-segment_start_number", fragment_id);
  if (!metadata.IsHLSHeader()) append("-individual_header_trailer", "0");
  append("-avoid_negative_ts", "0");
  // Without a plan the segments must be as long as the playlist says, keyframe or not.
  append("-break_non_keyframes", IsPreAnalysisAvailable() ? "0" : "1");
  return options;
}

Arguments HttpLiveStream::CalculateGstreamerArgument() { return SplitProfile(profile_value); }

std::string HttpLiveStream::GetSegmentTsPath(int fragment) const {
  char name[128];
  std::snprintf(name, sizeof name, "%s-%05d.ts", kSegmentName, fragment);
  return GetVTEFileFullPath(name);
}

std::string HttpLiveStream::GetSegmentPattern() const {
  return GetVTEFileFullPath(std::string(kSegmentName) + "-%05d.ts");
}

Arguments HttpLiveStream::GetSegmentArgument(int fragment) const {
  const PlatformUtils& host = PlatformUtils::GetInst();
  if (host.IsSupportOMX()) {
    IF_RUN_AS(root);
    if (root) setpriority(PRIO_PROCESS, 0, -10);
  }
  // The launcher's profiles have a keyframe every 5 seconds, whatever the stream's own segments.
  constexpr int64_t kSeconds = 5;
  return {host.GetFFmpegPath(),
          "-i",
          "-",
          "-map",
          "0",
          "-codec",
          "copy",
          "-f",
          "segment",
          "-segment_time",
          "5",
          "-segment_start_number",
          std::to_string(fragment),
          "-hls_seek_time",
          std::to_string(fragment * kSeconds * 1000),
          GetSegmentPattern()};
}

std::unique_ptr<Subprocess> HttpLiveStream::GetTranscodeSubprocess(
    const Arguments& args, const Subprocess::Input& input, const std::string& output) const {
  Arguments argv = is_gstreamer ? CalculateGstreamerTranscodingArgument(args, output, false)
                                : CalculateFFmpegTranscodingArgument(false, args, output);
  if (argv.empty()) {
    TARN_LOG_ERR("argv is empty");
    return nullptr;
  }
  if (is_remux) return std::make_unique<Subprocess>(std::move(argv), input);
  const auto load_check = [this] {
    // The registry may keep it waiting, and nobody else ends it meanwhile.
    tarn::DieWithParent();
    AwaitAdmission(is_hardware);
    if (!CheckTransload()) return false;
    tarn::FaultPoint("registered");
    return true;
  };
  if (PlatformUtils::GetInst().IsSupportGstreamer()) {
    return std::make_unique<librb::SubprocessTranscodeGstreamer>(std::move(argv), input,
                                                                 RemoveFromRegistry, load_check);
  }
  return std::make_unique<librb::SubprocessTranscode>(std::move(argv), input, RemoveFromRegistry,
                                                      load_check);
}

std::unique_ptr<Subprocess> HttpLiveStream::GetGstreamerSegmenter(
    int fragment, const Subprocess::Input& input) const {
  return std::make_unique<Subprocess>(GetSegmentArgument(fragment), input);
}

bool HttpLiveStream::ExecuteTranscodingWithSubprocess(const Arguments& args,
                                                      const std::string& output,
                                                      int fragment) const {
  std::unique_ptr<Subprocess> transcoder =
      GetTranscodeSubprocess(args, Subprocess::Input::Null(), output);
  if (transcoder == nullptr) {
    TARN_LOG_ERR("transcode_process_subprocess failed");
    return false;
  }
  std::unique_ptr<Subprocess> segmenter;
  if (is_gstreamer) segmenter = GetGstreamerSegmenter(fragment, transcoder->Stdout());
  librb::ProcessPipeline pipeline;
  pipeline.AddProcess(std::move(transcoder));
  if (segmenter != nullptr) pipeline.AddProcess(std::move(segmenter));
  // Spelling kept: it is what the host's logs are searched for.
  return librb::DoActionAsRoot("Execute TranscodeingWtihSubprocess", [&pipeline] {
    // The change of user took back the request to die with the monitor.
    tarn::DieWithParent();
    tarn::FaultPoint("pipeline started");
    pipeline.Run();
    return true;
  });
}

}  // namespace LibTarnVTE
