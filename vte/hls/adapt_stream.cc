#include "tarnvte/adapt_stream.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <filesystem>
#include <system_error>

#include "base/clock.h"
#include "base/file_io.h"
#include "base/text.h"
#include "base/unique_fd.h"
#include "base/wait.h"
#include "tarnutil/qlibc.h"

namespace LibTarnVTE {
namespace {

constexpr char kAccessFile[] = "access_status";

// A member that is a string; null for anything else.
const Json::Value* StringMember(const Json::Value& params, const char* name) {
  if (!params.isObject()) return nullptr;
  const Json::Value& member = params[name];
  return member.isString() ? &member : nullptr;
}

// Playlists and manifests are text: such a byte would add to them instead of becoming part of a
// URL.
bool MayStandInText(const std::string& url, bool xml) {
  return !tarn::HasControlCharacter(url) && !(xml && url.find_first_of("<\"") != std::string::npos);
}

// False, with `seconds` untouched, when there is no such file.
bool SecondsSinceTouched(const std::string& path, int64_t& seconds) {
  struct stat status {};
  if (stat(path.c_str(), &status) != 0) return false;
  seconds = tarn::WallSeconds() - status.st_mtime;
  return true;
}

bool IsFragmentName(const std::string& kind, const std::string& name) {
  return kind == "HLS" ? name.starts_with("slice") : name == "smooth";
}

// Follows no link below the directory.
void RemoveFragments(const std::string& directory, const std::string& kind) {
  std::error_code error;
  std::filesystem::directory_iterator entry(directory, error);
  while (!error && entry != std::filesystem::directory_iterator()) {
    const std::filesystem::path path = entry->path();
    std::error_code ignored;
    if (IsFragmentName(kind, path.filename())) std::filesystem::remove_all(path, ignored);
    entry.increment(error);
  }
}

}  // namespace

AdaptStream::AdaptStream(const std::string& stream_id, const std::string& type)
    : VTEStream(stream_id, type) {}

AdaptStream::~AdaptStream() = default;

bool AdaptStream::Close() {
  StopRun();
  return CloseStreamCommon();
}

bool AdaptStream::InitAdaptStream(const Json::Value& params, const std::string& audio_id) {
  if (!params.isObject()) return false;
  const Json::Value& force = params["force_open_vte"];
  if (!InitStreamCommon(audio_id, force.isBool() && force.asBool())) return false;
  const Json::Value& url = params["url"];
  return url.isConvertibleTo(Json::stringValue) && !url.asString().empty();
}

bool AdaptStream::IsWebapi5(const Json::Value& params) {
  const Json::Value* const api = StringMember(params, "api");
  return api != nullptr && api->asString().find("TARN.Reelbay2") != std::string::npos;
}

bool AdaptStream::TouchAccess() const {
  const std::string path = GetVTEFileFullPath(kAccessFile);
  const tarn::UniqueFd file(
      tarn::OpenRetry(path.c_str(), O_WRONLY | O_CREAT | O_NOFOLLOW | O_NONBLOCK, 0644));
  return file.valid() && futimens(file.get(), nullptr) == 0;
}

bool AdaptStream::VTEIsTimeout(unsigned long seconds) const {
  int64_t passed;
  return SecondsSinceTouched(GetVTEFileFullPath(kAccessFile), passed) &&
         static_cast<uint64_t>(passed) >= seconds;
}

bool AdaptStream::IsAbandoned(unsigned long seconds) const {
  int64_t passed;
  return SecondsSinceTouched(GetVTEFileFullPath(kAccessFile), passed) &&
         passed >= static_cast<int64_t>(seconds);
}

void AdaptStream::StopRun() const {
  SaveMonitorPid(0, true);
  // A transcoder that has to be killed takes all of the time that this waits. It must not put a
  // fragment into the directory while that is cleared or removed.
  const int monitor = GetMonitorPid();
  if (QLIBCProcAlive(monitor) == 0) return;
  constexpr int kTries = 6;
  tarn::ChangeWaiter waiter;
  waiter.WatchProcess(monitor);
  waiter.WaitUntil([monitor] { return QLIBCProcAlive(monitor) == 0; }, kTries, 1000);
}

bool AdaptStream::SeekingHandler() const {
  const std::string directory = GetVTEFileFullPath("");
  if (directory.empty()) return false;
  StopRun();
  // The program below fails when it removed a directory that it was about to look into, and it
  // would look into whatever a link leads to: it is to find nothing any more.
  RemoveFragments(directory, stream_type);
  const char* const pattern = stream_type == "HLS" ? "slice*" : "smooth";
  const char* const find[] = {
      "/bin/find", "-L",   directory.c_str(), "-name", pattern, "-exec", "/bin/rm", "-rf", "{}",
      ";",         nullptr};
  return QLIBCExecv(find[0], find, 0) == 0;
}

std::string AdaptStream::GetStreamURL(const Json::Value& params) const {
  const auto text = [&params](const char* name) {
    const Json::Value* const member = StringMember(params, name);
    return member != nullptr ? member->asString() : std::string();
  };
  const std::string base = text("url");
  const std::string format = text("format");
  if (base.empty() || format.empty() || stream_id.empty() || stream_type.empty()) return "";

  const bool xml = stream_type == "SS";
  const bool quoted = IsWebapi5(params);
  const std::string separator = xml ? "&amp;" : "&";
  std::string url = base + "?format=" + format + separator +
                    (quoted ? "stream_id=%22" + stream_id + "%22" : "id=" + stream_id);
  const auto append = [&](const std::string& name, const std::string& quote) {
    const Json::Value* const member = StringMember(params, name.c_str());
    if (member == nullptr) return;
    url += separator + name + "=" + quote + member->asString() + quote;
  };
  const std::string quote = quoted ? "%22" : "";
  append("api", "");
  if (const Json::Value& version = params["version"]; version.isInt()) {
    url += separator + "version=" + std::to_string(version.asInt());
  }
  append("method", "");
  append("token", quote);
  append("_sid", quote);
  append("TarnToken", "");
  append("sharing_id", quote);
  return MayStandInText(url, xml) ? url : "";
}

}  // namespace LibTarnVTE
