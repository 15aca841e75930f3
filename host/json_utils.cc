#include "tarnvte/json_utils.h"

#include <fcntl.h>
#include <sys/file.h>

#include "base/file_io.h"
#include "base/log.h"
#include "base/unique_fd.h"
#include "host/json_text.h"

namespace LibReelbay {
namespace {

constexpr char kLogUnit[] = "json_utils";
constexpr size_t kMaxFileSize = 16 << 20;

// A lock on the JSON file itself. Work goes on without it where it cannot be had, within a minute.
// (Closing the descriptor releases it: nobody else holds this open file.)
class ScopedFileLock {
 public:
  ScopedFileLock(const std::string& path, int open_flags, int operation)
      : fd_(tarn::OpenRetry(path.c_str(), open_flags | O_NONBLOCK, 0664)) {
    if (fd_.valid()) tarn::LockWithinMinute(fd_.get(), path, operation);
  }

 private:
  tarn::UniqueFd fd_;
};

bool ReadFileContent(const std::string& path, Json::Value& value) {
  if (path.empty()) {
    TARN_LOG_ERR("Bad parameter");
    return false;
  }
  const tarn::UniqueFd fd(tarn::OpenRetry(path.c_str(), O_RDONLY | O_NONBLOCK));
  if (!fd.valid()) return false;
  std::string text;
  if (!tarn::ReadAll(fd.get(), kMaxFileSize, text) || !TextToJson(text, value)) {
    TARN_LOG_ERR("Failed to parse json file [%s]", path.c_str());
    return false;
  }
  return true;
}

bool WriteFileContent(const std::string& path, const Json::Value& value) {
  if (path.empty()) {
    TARN_LOG_ERR("Bad parameter");
    return false;
  }
  const tarn::UniqueFd fd(tarn::OpenRetry(path.c_str(), O_RDWR | O_CREAT | O_NONBLOCK, 0664));
  if (!fd.valid() || !tarn::RewriteInPlace(fd.get(), JsonToText(value))) {
    TARN_LOG_ERR("failed to write json file [%s]", path.c_str());
    return false;
  }
  return true;
}

}  // namespace

bool ReadJsonFromFile(const std::string& path, Json::Value& value) {
  const ScopedFileLock lock(path, O_RDONLY, LOCK_SH);
  return ReadFileContent(path, value);
}

bool ReadJsonFromFileWithoutLock(const std::string& path, Json::Value& value) {
  return ReadFileContent(path, value);
}

bool WriteJsonToFile(const std::string& path, const Json::Value& value) {
  const ScopedFileLock lock(path, O_RDWR | O_CREAT, LOCK_EX);
  return WriteFileContent(path, value);
}

bool WriteJsonToFileWithoutLock(const std::string& path, const Json::Value& value) {
  return WriteFileContent(path, value);
}

}  // namespace LibReelbay
