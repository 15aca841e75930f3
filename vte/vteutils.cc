#include "tarnvte/vteutils.h"

#include <fcntl.h>
#include <signal.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>

#include "base/file_io.h"
#include "base/log.h"
#include "base/paths.h"
#include "base/run_as.h"
#include "base/text.h"
#include "base/trusted_dir.h"
#include "base/unique_fd.h"
#include "base/wait.h"

extern "C" {
#include <libavcodec/codec_desc.h>
}

namespace LibTarnVTE {
namespace {

constexpr char kLogUnit[] = "vteutils";
constexpr int kStepMs = 1000;

bool Exists(const std::string& path) {
  struct stat status {};
  return stat(path.c_str(), &status) == 0;
}

std::string ParentDirectory(const std::string& path) {
  const size_t slash = path.rfind('/');
  if (slash == std::string::npos) return ".";
  return slash == 0 ? "/" : path.substr(0, slash);
}

// Looks again when the folder changes, and at every step for what it does not report (another host
// made the file, the folder itself was missing).
bool WaitUntilExists(const std::string& path, unsigned steps) {
  const std::string parent = ParentDirectory(path);
  tarn::ChangeWaiter waiter;
  bool watching = false;
  const auto appeared = [&] {
    watching = watching || waiter.WatchDirectory(parent);
    return Exists(path);
  };
  return waiter.WaitUntil(appeared, static_cast<int>(std::min<unsigned>(steps, INT_MAX)), kStepMs);
}

}  // namespace

bool VerifyFileExist(const std::string& path, unsigned retries) {
  if (path.empty()) return false;
  IF_RUN_AS(root);
  if (!root) return false;
  return retries == 0 ? Exists(path) : WaitUntilExists(path, retries);
}

std::string ReadFile(const std::string& path) {
  const tarn::UniqueFd fd(tarn::OpenRetry(path.c_str(), O_RDONLY | O_NONBLOCK));
  if (!fd.valid()) return "";
  char buffer[4096] = {};
  while (read(fd.get(), buffer, sizeof buffer - 1) < 0 && errno == EINTR) {
  }
  return buffer;
}

bool SaveFile(const std::string& path, const std::string& text) {
  if (path.empty() || text.empty()) return false;
  if (!tarn::ReplaceFile(path, text, 0644)) {
    TARN_LOG_ERR("Failed to write file [%s]", path.c_str());
    return false;
  }
  return true;
}

std::vector<std::string> StringExplode(const std::string& text, const std::string& delimiters) {
  std::vector<std::string> tokens;
  size_t begin = text.find_first_not_of(delimiters);
  while (begin != std::string::npos) {
    const size_t end = text.find_first_of(delimiters, begin);
    tokens.push_back(text.substr(begin, end - begin));
    begin = text.find_first_not_of(delimiters, end);
  }
  return tokens;
}

template <>
std::string ToString<float>(float value) {
  return tarn::FormatClassic(value);
}

template <>
std::string ToString<unsigned int>(unsigned int value) {
  return tarn::FormatClassic(value);
}

std::string GetCodecName(int codec_id) {
  const AVCodecDescriptor* descriptor = avcodec_descriptor_get(static_cast<AVCodecID>(codec_id));
  return descriptor != nullptr && descriptor->name != nullptr ? descriptor->name : "";
}

int KillProcess(int pid) {
  if (pid <= 1 || pid == getpid()) return -1;
  return kill(pid, SIGTERM);
}

std::string GetVTEFileFullPath(const std::string& stream_id, const std::string& type,
                               const std::string& name) {
  if (!tarn::IsSafeName(stream_id) || !tarn::IsSafeName(type)) return "";
  const std::string directory = std::string(tarn::paths::kTmpRoot) + "/" + type + "/" + stream_id;
  return name.empty() ? directory : directory + "/" + name;
}

}  // namespace LibTarnVTE
