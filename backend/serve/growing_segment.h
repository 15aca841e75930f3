// A segment that is sent while it is still being made.
//
// A segment of some seconds takes the transcoder most of a second, and a player can show its first
// pictures long before its last ones are there. The engine says when a segment is whole, and only
// then that it is the right one; until then a client is sent what may have to be taken back, by
// ending the connection.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "backend/http/server.h"
#include "backend/loop/event_loop.h"
#include "backend/loop/unique_fd.h"

namespace tarnbackend {

// In the loop's thread. Holds its file and the end of a pipe, and gives both back when it goes.
class GrowingSegment : public std::enable_shared_from_this<GrowingSegment> {
 public:
  // The file that has a name, 0 where there is none.
  static ino_t FileAt(const std::string& path);

  // `stale`: the file that had the name when the segment was asked for, which an older run left.
  GrowingSegment(EventLoop& loop, std::string path, ino_t stale)
      : loop_(loop), path_(std::move(path)), stale_(stale) {}
  ~GrowingSegment();
  GrowingSegment(const GrowingSegment&) = delete;
  GrowingSegment& operator=(const GrowingSegment&) = delete;

  // Looks for the file from now on. `begun` is called once, when there is something to send.
  void Await(std::function<void(http::PipeBody)> begun);
  bool begun() const { return file_.valid(); }

  // Of one that has begun: `whole` is the finished segment. Where it is another file than the one
  // that was sent, the connection is ended; false.
  bool Finish(int whole);
  // Nothing more comes. A client that has a part of it loses the connection.
  void End();

 private:
  void Look();
  bool Open();
  // False once there is nothing left to do.
  bool Pump();

  EventLoop& loop_;
  const std::string path_;
  const ino_t stale_;
  std::function<void(http::PipeBody)> begun_;
  UniqueFd file_;
  UniqueFd pipe_;
  EventLoop::TimerId timer_ = 0;
  uint64_t sent_ = 0;
  uint64_t size_ = 0;  // known when it is whole
  // Outlives this: whether the end of the pipe is the end of the segment.
  std::shared_ptr<bool> whole_ = std::make_shared<bool>(false);
};

}  // namespace tarnbackend
