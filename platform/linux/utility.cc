#include <sys/stat.h>

#include <cerrno>
#include <string>
#include <string_view>

#include "base/file_io.h"
#include "base/process.h"
#include "base/text.h"
#include "tarnutil/qlibc.h"

namespace {

constexpr size_t kMaxSettingsFile = 1 << 20;
constexpr size_t kMaxPidFile = 64;

thread_local int g_error_code = 0;

std::string_view Trim(std::string_view text) {
  constexpr std::string_view kBlank = " \t\r";
  const size_t first = text.find_first_not_of(kBlank);
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(kBlank) - first + 1);
}

// What stands between the quotes, or before a comment.
std::string_view Value(std::string_view text) {
  text = Trim(text);
  if (!text.empty() && (text.front() == '"' || text.front() == '\'')) {
    const size_t close = text.find(text.front(), 1);
    if (close != std::string_view::npos) return text.substr(1, close - 1);
  }
  return Trim(text.substr(0, text.find('#')));
}

bool FindValue(std::string_view file, std::string_view key, std::string_view& value) {
  while (!file.empty()) {
    const size_t end = file.find('\n');
    const std::string_view line = file.substr(0, end);
    file.remove_prefix(end == std::string_view::npos ? file.size() : end + 1);
    const size_t equals = line.find('=');
    if (equals == std::string_view::npos || Trim(line.substr(0, equals)) != key) continue;
    value = Value(line.substr(equals + 1));
    return true;
  }
  return false;
}

}  // namespace

int QLIBCFileExist(const char* path) {
  struct stat status {};
  return path != nullptr && stat(path, &status) == 0 ? 1 : 0;
}

int QLIBCFileCheckDir(const char* path) {
  if (path == nullptr) return -1;
  struct stat status {};
  if (stat(path, &status) == 0) return S_ISDIR(status.st_mode) ? 1 : 0;
  return errno == ENOENT || errno == ENOTDIR ? 0 : -1;
}

int QLIBCFileGetKeyValue(const char* path, const char* key, char* value, size_t size,
                         int /*flags*/) {
  if (path == nullptr || key == nullptr || value == nullptr || size == 0) return -1;
  value[0] = '\0';
  std::string file;
  if (!tarn::ReadWholeFile(path, kMaxSettingsFile, file)) return -1;
  std::string_view found;
  if (!FindValue(file, key, found)) return 0;
  if (found.size() >= size) return -1;
  found.copy(value, found.size());
  value[found.size()] = '\0';
  return static_cast<int>(found.size());
}

int QLIBCProcAlive(int pid) { return tarn::ProcessAlive(pid) ? 1 : 0; }

int QLIBCReadPidFile(const char* path) {
  std::string text;
  if (path == nullptr || !tarn::ReadWholeFile(path, kMaxPidFile, text)) return -1;
  return tarn::ParsePid(text);
}

int QLIBCErrGet(void) { return g_error_code; }

void QLIBCErrSetEx(int code, const char* /*file*/, int /*line*/) { g_error_code = code; }
