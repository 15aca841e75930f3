#include "transcoder/smooth/fragment_writer.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstring>

#include "base/file_io.h"

namespace tarn::smooth {
namespace {

bool MakeFolder(const std::string& path, std::string& error) {
  if (mkdir(path.c_str(), 0755) == 0 || errno == EEXIST) return true;
  error = path + ": " + std::strerror(errno);
  return false;
}

}  // namespace

FragmentWriter::FragmentWriter(TrackId track, const std::string& output, uint64_t bit_rate,
                               Time length)
    : track_(track),
      output_(output),
      folder_(output + "/QualityLevels(" + std::to_string(bit_rate) + ")"),
      length_(length) {}

bool FragmentWriter::Prepare(std::string& error) {
  return MakeFolder(output_, error) && MakeFolder(folder_, error);
}

bool FragmentWriter::Add(uint64_t first, Time time, bool key, std::string_view data,
                         std::string& error) {
  if (time < static_cast<Time>(first) * length_ || (newest_ && time <= *newest_)) return true;
  const uint64_t number = static_cast<uint64_t>(time / length_);
  if (!fragment_ || number != number_) {
    if (!Finish(time, error) || !Begin(number, error)) return false;
    if (!key) {
      error = "the encoder made no keyframe for " + name_;
      return false;
    }
  }
  newest_ = time;
  fragment_->Add(time, key, data);
  return true;
}

bool FragmentWriter::End(Time end, std::string& error) { return Finish(end, error); }

bool FragmentWriter::Begin(uint64_t number, std::string& error) {
  const std::string start = std::to_string(static_cast<Time>(number) * length_);
  name_ = folder_ + "/Fragments(" + (track_ == TrackId::kVideo ? "video=" : "audio=") + start + ")";
  if (!file_.Create(name_ + ".part", error)) return false;
  number_ = number;
  fragment_.emplace(track_, static_cast<uint32_t>(number));
  return true;
}

bool FragmentWriter::Finish(Time end, std::string& error) {
  if (!fragment_) return true;
  const int fd = file_.descriptor().get();
  int failure = 0;
  if (!WriteAll(fd, fragment_->Head(end)) || !WriteAll(fd, fragment_->data())) failure = errno;
  if (failure == 0) failure = file_.Finish(name_);
  if (failure != 0) error = std::string("writing a fragment failed: ") + std::strerror(failure);
  fragment_.reset();
  return failure == 0;
}

}  // namespace tarn::smooth
