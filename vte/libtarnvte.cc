#include "tarnvte/libtarnvte.h"

#include "base/log.h"
#include "host/json_access.h"
#include "tarnvte/argument_helper.h"
#include "tarnvte/md5.h"
#include "tarnvte/platform_utils.h"
#include "tarnvte/random_string.h"
#include "tarnvte/vteutils.h"

namespace LibTarnVTE {

const std::string kFFmpegBin = "/var/packages/Reelbay/target/bin/ffmpeg";
const std::string kGstreamBin = "/var/packages/Reelbay/target/bin/tarn-gst";

namespace {

constexpr char kLogUnit[] = "libtarnvte";

// Letter order kept: callers compare it.
constexpr char kNoSpace[] = "TransSapceNotEnough";
// The bit stream filter that only a profile that copies H.264 names.
constexpr char kRemuxMark[] = "h264_mp4toannexb";
constexpr char kAudioIdFile[] = "audio_id";

bool Contains(const std::string& text, const char* part) {
  return text.find(part) != std::string::npos;
}

const char* CapabilityWord(unsigned code) {
  switch (code) {
    case 2:
      return "TransVideoNotHardwareSupported";
    case 3:
      return "TransVideoOutOfResolutionCapability";
    case 4:
      return "TransVideoOutOfProfileCapability";
    case 5:
      return "TransVideoOutOfFramerateCapability";
    default:
      return "TransVideoNotSupported";
  }
}

}  // namespace

VTEStream::VTEStream(const std::string& stream_id, const std::string& stream_type)
    : stream_id(stream_id), stream_type(stream_type), metadata(stream_id, stream_type) {
  if (stream_id == kNoSpace) return;
  metadata.LoadMetaData();
  profile_value = metadata.GetProfileValue();
  if (profile_value.empty()) return;
  is_remux = Contains(profile_value, kRemuxMark);
  is_vaapi_ffmpeg = Contains(profile_value, "h264_vaapi");

  const auto& platform = librb::util::PlatformUtils::GetInst();
  if (platform.IsEvansport()) {
    is_hardware = Contains(profile_value, "h264_smd");
  } else if (platform.IsSupportVaapi()) {
    is_hardware = is_vaapi_ffmpeg;
  } else if (platform.IsSupportGstreamer()) {
    // A GStreamer profile is written as launcher options.
    is_gstreamer = Contains(profile_value, "--acodec");
    is_hardware = is_gstreamer;
  }
}

VTEStream::~VTEStream() = default;

unsigned VTEStream::GetMetaVideoRotate() const { return metadata.GetVideoRotate(); }

std::string VTEStream::VTE_Init(const VTEInitArgument& arg) {
  if (arg.path.empty() || arg.type.empty() || arg.profile_path.empty() || arg.profile_key.empty()) {
    return "";
  }
  std::string id;
  const Json::Value* requested = LibReelbay::FindMember(arg.params, "stream_id");
  if (requested != nullptr && requested->isString()) {
    id = requested->asString();
  } else {
    id = GetRandStreamID(arg.path);
    if (id.empty()) return "";
  }
  if (!CreateTmpDir(id, arg.type, arg.profile_path, arg.profile_key, arg.needed_space)) {
    return kNoSpace;
  }
  const bool hls_header = LibReelbay::IsFlag(arg.params, "hls_header", true);
  if (!VTEMetaData(id, arg.type).ParserMetaData(arg, id, hls_header)) {
    TARN_LOG_ERR("VTEMetaData.ParserMetaData(%s, %s) failed", id.c_str(), arg.type.c_str());
    return "";
  }
  return id;
}

std::string VTEStream::GetRandStreamID(const std::string& path) {
  constexpr int kTail = 8;
  const std::string digest = LibReelbay::GetMD5(path);
  return digest.empty() ? "" : librb::util::RandomString(digest + "_", kTail);
}

bool VTEStream::IsRemux(const std::string& profile_path, const std::string& profile_key) {
  Json::Value profile;
  return VTEMetaData::ReadTransProfile(profile_path, profile_key, profile) &&
         Contains(profile["profile_value"].asString(), kRemuxMark);
}

bool VTEStream::InitStreamCommon(const std::string& audio_id, bool force_stop_offline) {
  const ArgumentHelper helper(metadata);
  if (stream_id == kNoSpace) {
    SetError(kNoSpace);
    return false;
  }
  if (stream_id.empty() || stream_type.empty() || profile_value.empty()) return false;
  const std::string directory = GetVTEFileFullPath("");
  if (!VerifyFileExist(directory)) {
    TARN_LOG_ERR("Can't file tmp file [%s]", directory.c_str());
    return false;
  }
  if (!helper.ZeroAudioTrack() && !helper.AbleToDecodeAudio(audio_id)) {
    SetError("TransAudioNotSupported");
    return false;
  }
  if (!is_remux) {
    const unsigned code = helper.AbleToTranscodeTheVideo(is_hardware, true);
    if (code != 0) {
      SetError(CapabilityWord(code));
      return false;
    }
    if (!CheckTransLoading(force_stop_offline)) return false;
  }
  if (audio_id.empty()) return true;
  const std::string audio_path = GetVTEFileFullPath(kAudioIdFile);
  if (!SaveFile(audio_path, audio_id)) {
    TARN_LOG_ERR("Failed to save audio ID [%s] in [%s]", audio_id.c_str(), audio_path.c_str());
    return false;
  }
  return true;
}

std::string VTEStream::GetErrorString() const { return error; }

bool VTEStream::SetError(const std::string& word) {
  if (word.empty()) return false;
  error = word;
  return true;
}

std::string VTEStream::GetStreamID() const { return stream_id; }

std::string VTEStream::GetVTEFileFullPath(const std::string& name) const {
  return LibTarnVTE::GetVTEFileFullPath(stream_id, stream_type, name);
}

std::string VTEStream::GetRequestAudioID() const {
  return ReadFile(GetVTEFileFullPath(kAudioIdFile));
}

bool VTEStream::IsSourceAudioCodec(const std::string& codec) const {
  return ArgumentHelper(metadata).DoesAudioCodecMatch(GetRequestAudioID(), codec);
}

Json::Value VTEStream::GetFirstVideoInfo() const { return metadata.GetVideo(0); }

}  // namespace LibTarnVTE
