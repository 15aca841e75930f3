#include "vte/hls/first_reader.h"

#include <fcntl.h>

#include "base/file_io.h"

namespace LibTarnVTE {
namespace {

// As for the lock that requests take turns with: who may open the file may delay others.
constexpr mode_t kMode = 0660;

// Each state is a byte of the file.
struct flock Record(short type, FirstReader::State state) {
  struct flock record {};
  record.l_type = type;
  record.l_whence = SEEK_SET;
  record.l_start = static_cast<off_t>(state);
  record.l_len = 1;
  return record;
}

}  // namespace

void FirstReader::Say(State state) {
  if (!file_.valid()) {
    file_.reset(tarn::OpenRetry(path_.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW, kMode));
  }
  struct flock record = Record(F_RDLCK, state);
  fcntl(file_.get(), F_OFD_SETLK, &record);
}

FirstReader::State FirstReader::Others() {
  if (!file_.valid()) file_.reset(tarn::OpenRetry(path_.c_str(), O_RDWR | O_NOFOLLOW));
  if (IsSaid(State::kWaiting)) return State::kWaiting;
  return IsSaid(State::kComing) ? State::kComing : State::kNobody;
}

bool FirstReader::IsSaid(State state) const {
  struct flock record = Record(F_WRLCK, state);
  return fcntl(file_.get(), F_OFD_GETLK, &record) == 0 && record.l_type != F_UNLCK;
}

}  // namespace LibTarnVTE
