#include "tarnvte/preprocess_result.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstddef>
#include <string_view>

#include "base/file_io.h"
#include "base/media_time.h"
#include "base/unique_fd.h"
#include "librb/critical.h"

extern "C" {
#include <libavutil/frame.h>
#include <libavutil/rational.h>
}

namespace LibTarnVTE::preprocess {
namespace {

constexpr char kFileName[] = "TARNVIDEO_PREPROCESS_V1";
// Six million keyframes.
constexpr size_t kMaxFileSize = size_t{64} << 20;
// Two bytes make an empty field, which takes seventy once it is parsed: a bigger file must be
// plain.
constexpr size_t kMaxFreeFormSize = size_t{2} << 20;

// A system call would take the part before the NUL, which names another file.
bool IsPath(const std::string& path) {
  return !path.empty() && path.find('\0') == std::string::npos;
}

// Whoever may write beside the video may have put a pipe there, so nothing waits for a writer.
bool ReadRegularFile(const std::string& path, std::string& data) {
  const tarn::UniqueFd file(tarn::OpenRetry(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY));
  struct stat status {};
  if (!file.valid() || fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode)) return false;
  if (static_cast<size_t>(status.st_size) > kMaxFileSize) return false;
  data.reserve(static_cast<size_t>(status.st_size));
  return tarn::ReadAll(file.get(), kMaxFileSize, data);
}

// Nothing but keyframes with a time, and an end: the form in which results are written.
bool IsPlain(std::string_view data) {
  constexpr size_t kEntrySize = 11;
  while (data.starts_with("\x0a\x09\x09")) data.remove_prefix(std::min(kEntrySize, data.size()));
  return data.empty() || (data.size() == 9 && data.front() == '\x11');
}

}  // namespace

std::string PreprocessUtil::GetPreprocessResultPath(const std::string& video_path) {
  std::string directory;
  if (video_path.empty() || !librb::critical::tarnindex::GetEADirPath(video_path, directory)) {
    return {};
  }
  return directory + "/" + kFileName;
}

proto::GroupOfPicture* PreprocessResultWrapper::PushPtsTime(double seconds) {
  proto::GroupOfPicture* entry = add_gop();
  entry->set_keyframe_pts_time(seconds);
  return entry;
}

proto::GroupOfPicture* PreprocessResultWrapper::ProcessFrame(const AVFrame& frame,
                                                             const AVRational& time_base) {
  return PushPtsTime(tarn::TimestampSeconds(frame.pts, time_base.num, time_base.den));
}

bool PreprocessResultWrapper::WriteToFile(const std::string& path) const {
  std::string data;
  return IsPath(path) && SerializeToString(&data) && tarn::ReplaceFile(path, data, 0644);
}

bool PreprocessResultWrapper::ReadFromFile(const std::string& path) {
  std::string data;
  if (!IsPath(path) || !ReadRegularFile(path, data) ||
      (data.size() > kMaxFreeFormSize && !IsPlain(data)) || !ParseFromString(data)) {
    Clear();
    return false;
  }
  return true;
}

std::vector<double> PreprocessResultWrapper::GetAllKeyframePtsTime() const {
  std::vector<double> times;
  times.reserve(static_cast<size_t>(gop_size()));
  for (const proto::GroupOfPicture& entry : gop()) {
    times.push_back(entry.keyframe_pts_time() - gop(0).keyframe_pts_time());
  }
  return times;
}

}  // namespace LibTarnVTE::preprocess
