#include "tarnvte/preprocess_analysis.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdarg>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <memory>
#include <string_view>
#include <tuple>

#include "base/fault_point.h"
#include "base/file_io.h"
#include "base/log.h"
#include "base/signals.h"
#include "base/text.h"
#include "base/unique_fd.h"
#include "librb/critical.h"
#include "librb/process.h"
#include "metadata/confined.h"
#include "vte/preprocess/keyframe_reader.h"

extern "C" {
#include <libavutil/log.h>
}

namespace LibTarnVTE::preprocess {
namespace {

constexpr char kLogUnit[] = "preprocess_analysis";
constexpr mode_t kDirectoryMode = 0755;
constexpr std::string_view kMethodWords[] = {"index", "packets", "decoding"};
constexpr char kFailedWord[] = "failed";

constexpr size_t kStep = size_t{1} << 20;
constexpr int64_t kIdleMs = 30'000;
constexpr int64_t kLeastTotalMs = 120'000;
constexpr int64_t kTotalMsPerStep = 1000;

void AppendDouble(std::string& text, double value) {
  text.append(reinterpret_cast<const char*>(&value), sizeof value);
}

// The reader's answer on its way out of the confined process: lines with a word, the reason and the
// number of keyframes, then the keyframes' times and the end as they lie in memory.
std::string Encode(bool found, const VideoAnalysis& analysis) {
  std::string text = found ? AnalysisMethodWord(analysis.method) : kFailedWord;
  text += '\n' + analysis.reason + '\n' + std::to_string(analysis.result.gop_size()) + '\n';
  for (const proto::GroupOfPicture& entry : analysis.result.gop()) {
    AppendDouble(text, entry.keyframe_pts_time());
  }
  AppendDouble(text, analysis.result.end_time());
  return text;
}

// Takes the text up to the next line feed; false when there is none.
bool TakeLine(std::string_view& text, std::string_view& line) {
  const size_t end = text.find('\n');
  if (end == text.npos) return false;
  line = text.substr(0, end);
  text.remove_prefix(end + 1);
  return true;
}

double TakeDouble(std::string_view& text) {
  double value;
  std::memcpy(&value, text.data(), sizeof value);
  text.remove_prefix(sizeof value);
  return value;
}

bool IsPlain(std::string_view text) {
  return std::ranges::all_of(text, [](char c) { return c >= 0x20 && c < 0x7f; });
}

// Reads what Encode wrote, and trusts it with nothing: the file may have broken its sender.
bool Decode(std::string_view text, VideoAnalysis& analysis) {
  std::string_view word, reason, count_text;
  uint64_t count = 0;
  if (!TakeLine(text, word) || !TakeLine(text, reason) || !TakeLine(text, count_text) ||
      !IsPlain(reason) || !tarn::ParseDecimal(count_text, count) || count >= text.size() ||
      text.size() != (count + 1) * sizeof(double)) {
    return false;
  }
  analysis.reason = reason;
  const auto* const method = std::ranges::find(kMethodWords, word);
  if (method == std::end(kMethodWords) || count == 0) return false;
  analysis.method = static_cast<AnalysisMethod>(method - kMethodWords);
  for (uint64_t i = 0; i < count; ++i) analysis.result.PushPtsTime(TakeDouble(text));
  analysis.result.set_end_time(TakeDouble(text));
  return true;
}

// Runs in the reader's own process.
std::string Read(const std::string& path, const GetOn& get_on) {
  av_log_set_callback([](void*, int, const char*, va_list) {});
  size_t bytes = 0;
  VideoAnalysis analysis;
  const bool found = ReadKeyframes(
      path,
      [&](size_t more) {
        bytes += more;
        for (; bytes >= kStep; bytes -= kStep) get_on();
      },
      analysis);
  return Encode(found, analysis);
}

bool ReadConfined(const std::string& path, long size, VideoAnalysis& analysis) {
  const ConfinedLimits limits{
      .total_ms = kLeastTotalMs + static_cast<int64_t>(size / kStep) * kTotalMsPerStep,
      .idle_ms = kIdleMs};
  std::string text;
  const auto read = [&path](const GetOn& get_on) { return Read(path, get_on); };
  return RunConfined(limits, read, text) && Decode(text, analysis);
}

bool Fail(const std::string& reason, VideoAnalysis& analysis) {
  analysis.result.Clear();
  analysis.reason = reason;
  return false;
}

// What changes when a file's content does.
auto Version(const struct stat& status) {
  return std::make_tuple(status.st_dev, status.st_ino, status.st_size, status.st_mtim.tv_sec,
                         status.st_mtim.tv_nsec, status.st_ctim.tv_sec, status.st_ctim.tv_nsec);
}

bool IsOlder(const timespec& a, const timespec& b) {
  return std::tie(a.tv_sec, a.tv_nsec) < std::tie(b.tv_sec, b.tv_nsec);
}

// Other users may write to a video's folder. A link that they plant there as the metadata directory
// is not followed.
bool WriteResult(const std::string& result_path, const PreprocessResultWrapper& result) {
  const size_t slash = result_path.rfind('/');
  if (slash == std::string::npos) return false;
  const std::string directory_path = result_path.substr(0, slash);
  if (!librb::critical::tarnsdk::TARNFSMkdirPReelbay(directory_path, kDirectoryMode)) return false;
  const tarn::UniqueFd directory(
      tarn::OpenRetry(directory_path.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW));
  if (!directory.valid()) return false;
  // A signal that ends the process waits, so that no temporary file stays.
  const tarn::ScopedSignalBlock block;
  tarn::FaultPoint("analysis.write");
  return result.WriteToFile("/proc/self/fd/" + std::to_string(directory.get()) +
                            result_path.substr(slash));
}

}  // namespace

const char* AnalysisMethodWord(AnalysisMethod method) {
  return kMethodWords[static_cast<size_t>(method)].data();
}

bool AnalyzeVideo(const std::string& video_path, VideoAnalysis& analysis) {
  analysis = VideoAnalysis();
  long size = 0;
  if (!librb::critical::fileop::CheckFileAndGetSize(video_path, size)) {
    return Fail("is not a regular file that can be read", analysis);
  }
  analysis.reason = "could not be read: it takes too long, or breaks its reader";
  const bool read = librb::DoActionAsRoot("AnalyzeVideo",
                                          [&] { return ReadConfined(video_path, size, analysis); });
  return read || Fail(analysis.reason, analysis);
}

StoreOutcome AnalyzeAndStore(const std::string& video_path, VideoAnalysis& analysis) {
  struct stat before {};
  struct stat after {};
  const bool exists = stat(video_path.c_str(), &before) == 0;
  if (!AnalyzeVideo(video_path, analysis)) return StoreOutcome::kNotAnalyzed;
  if (!exists || stat(video_path.c_str(), &after) != 0 || Version(before) != Version(after)) {
    Fail("was changed while it was read", analysis);
    return StoreOutcome::kNotAnalyzed;
  }
  const std::string path = PreprocessUtil::GetPreprocessResultPath(video_path);
  const bool written =
      librb::DoActionAsRoot("StoreAnalysis", [&] { return WriteResult(path, analysis.result); });
  if (written) return StoreOutcome::kStored;
  TARN_LOG_ERR("Failed to write \"%s\".", path.c_str());
  Fail("its result cannot be written to " + path, analysis);
  return StoreOutcome::kNotWritten;
}

bool HasCurrentAnalysis(const std::string& video_path) {
  const std::string path = PreprocessUtil::GetPreprocessResultPath(video_path);
  return librb::DoActionAsRoot("HasCurrentAnalysis", [&] {
    struct stat video {};
    struct stat stored {};
    if (stat(video_path.c_str(), &video) != 0 || stat(path.c_str(), &stored) != 0) return false;
    // The inode's change tells of a file that was put in the place of another, too.
    PreprocessResultWrapper result;
    return IsOlder(video.st_mtim, stored.st_mtim) && IsOlder(video.st_ctim, stored.st_mtim) &&
           result.ReadFromFile(path) && result.gop_size() > 0;
  });
}

}  // namespace LibTarnVTE::preprocess
