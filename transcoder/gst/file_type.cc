#include "transcoder/gst/file_type.h"

#include <fcntl.h>
#include <gst/base/gsttypefindhelper.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <vector>

#include "base/file_io.h"
#include "base/unique_fd.h"
#include "transcoder/gst/handles.h"

namespace tarn::gst {
namespace {

// Enough of a file to tell its type.
constexpr size_t kHeadSize = 256 * 1024;

Failure ReadHead(const std::string& path, std::vector<unsigned char>& head) {
  const auto unreadable = [&](const char* reason) {
    return Failure{Status::kUnreadable, path + ": " + reason};
  };
  // A pipe or device would block or never end; stat opens nothing.
  struct stat info = {};
  if (stat(path.c_str(), &info) != 0) return unreadable(std::strerror(errno));
  if (!S_ISREG(info.st_mode)) return unreadable("not a regular file");
  const UniqueFd file(OpenRetry(path.c_str(), O_RDONLY | O_NONBLOCK));
  if (!file.valid()) return unreadable(std::strerror(errno));
  head.resize(kHeadSize);
  size_t size = 0;
  while (size < head.size()) {
    const ssize_t count = ReadRetry(file.get(), head.data() + size, head.size() - size);
    if (count < 0) return unreadable(std::strerror(errno));
    if (count == 0) break;
    size += static_cast<size_t>(count);
  }
  head.resize(size);
  return {};
}

}  // namespace

Failure ReaderFor(const std::string& path, FileReader& reader) {
  std::vector<unsigned char> head;
  if (Failure failure = ReadHead(path, head); failure.happened()) return failure;
  const MiniPtr<GstCaps> caps(
      gst_type_find_helper_for_data(nullptr, head.data(), head.size(), nullptr));
  if (!caps) return {Status::kNotMedia, path + ": no media file that is known"};
  const std::string type = gst_structure_get_name(gst_caps_get_structure(caps.get(), 0));
  reader = ReaderOf(type);
  switch (reader.kind) {
    case FileKind::kContainer:
      return {};
    case FileKind::kList:
      return {Status::kNotMedia, path + ": a list of other places, not media (" + type + ")"};
    case FileKind::kSound:
      return {Status::kNoVideo, path + ": there is no video"};
    case FileKind::kOther:
      break;
  }
  return {Status::kNotMedia, path + ": no container that can be read (" + type + ")"};
}

}  // namespace tarn::gst
