#include "backend/serve/growing_segment.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <utility>

namespace tarnbackend {
namespace {

// A picture's time or less; it costs one call of the kernel.
constexpr std::chrono::milliseconds kLook{10};
// The part of a segment that the client's connection has not taken yet.
constexpr int kPipeSize = 1 << 20;

}  // namespace

ino_t GrowingSegment::FileAt(const std::string& path) {
  struct stat status {};
  return lstat(path.c_str(), &status) == 0 ? status.st_ino : 0;
}

GrowingSegment::~GrowingSegment() { loop_.Cancel(timer_); }

void GrowingSegment::Await(std::function<void(http::PipeBody)> begun) {
  begun_ = std::move(begun);
  Look();
}

bool GrowingSegment::Finish(int whole) {
  struct stat theirs {};
  struct stat ours {};
  const bool same = fstat(whole, &theirs) == 0 && fstat(file_.get(), &ours) == 0 &&
                    theirs.st_dev == ours.st_dev && theirs.st_ino == ours.st_ino;
  if (!same) {
    End();
    return false;
  }
  size_ = static_cast<uint64_t>(theirs.st_size);
  *whole_ = true;
  loop_.Cancel(timer_);
  Look();
  return true;
}

void GrowingSegment::End() {
  loop_.Cancel(timer_);
  begun_ = nullptr;
  pipe_.reset();
}

void GrowingSegment::Look() {
  if ((begun() || Open()) && !Pump()) {
    End();
    return;
  }
  // What has begun goes on until its end, also when nobody else holds it.
  timer_ =
      loop_.After(kLook, [weak = weak_from_this(), kept = begun() ? shared_from_this() : nullptr] {
        if (const auto self = weak.lock()) self->Look();
      });
}

bool GrowingSegment::Open() {
  UniqueFd file(open(path_.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
  struct stat status {};
  if (!file.valid() || fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode)) return false;
  if (status.st_ino == stale_ || status.st_size == 0) return false;
  int ends[2];
  if (pipe2(ends, O_CLOEXEC | O_NONBLOCK) != 0) return false;
  UniqueFd reader(ends[0]);
  pipe_ = UniqueFd(ends[1]);
  // Where the kernel gives less, the client's pace is a little lower.
  fcntl(pipe_.get(), F_SETPIPE_SZ, kPipeSize);
  file_ = std::move(file);
  http::PipeBody body;
  body.fd = std::move(reader);
  body.whole = [whole = whole_] { return *whole; };
  body.ended = [weak = weak_from_this()](uint64_t, bool) {
    if (const auto self = weak.lock()) self->End();
  };
  std::exchange(begun_, nullptr)(std::move(body));
  return true;
}

bool GrowingSegment::Pump() {
  while (pipe_.valid()) {
    const ssize_t moved =
        splice(file_.get(), nullptr, pipe_.get(), nullptr, kPipeSize, SPLICE_F_NONBLOCK);
    if (moved < 0 && errno == EINTR) continue;
    if (moved < 0) return errno == EAGAIN;
    sent_ += static_cast<uint64_t>(moved);
    if (moved > 0) continue;
    if (!*whole_) return true;
    *whole_ = sent_ == size_;
    return false;
  }
  return false;
}

}  // namespace tarnbackend
