#include <fcntl.h>
#include <sys/epoll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "backend/http/call.h"
#include "backend/http/exchange.h"
#include "backend/http/socket_state.h"

namespace tarnbackend::http {

void Call::Wait() {
  waiting_ = true;
  MHD_suspend_connection(connection_);
  // The library does not look at a connection that is suspended. A client that shuts its side
  // counts as gone: nothing else tells that a page was closed before anything is sent.
  const uint32_t events = peer_.input_shut ? 0u : uint32_t{EPOLLRDHUP};
  daemon_.loop().Watch(peer_.fd, events, [this](uint32_t) {
    gone_ = true;
    Wake();
  });
}

void Call::Wake() {
  waiting_ = false;
  daemon_.loop().Unwatch(peer_.fd);
  if (pipe_) daemon_.loop().Unwatch(pipe_->fd.get());
  MHD_resume_connection(connection_);
  daemon_.RunSoon();
}

void Call::Abandon() {
  if (exchange_ != nullptr) exchange_->Detach();
  exchange_ = nullptr;
  gone_ = true;
  if (waiting_) Wake();
}

void DropResponse(Response response) {
  auto* pipe = std::get_if<PipeBody>(&response.body);
  if (pipe == nullptr) return;
  pipe->fd.reset();
  if (pipe->ended) pipe->ended(0, false);
}

void Call::TakePipe(PipeBody pipe) {
  pipe_ = std::move(pipe);
  const int flags = fcntl(pipe_->fd.get(), F_GETFL);
  fcntl(pipe_->fd.get(), F_SETFL, flags | O_NONBLOCK);
}

void Call::TellPipeEnded() {
  if (!pipe_) return;
  PipeBody pipe = std::move(*pipe_);
  pipe_.reset();
  pipe.fd.reset();
  if (pipe.ended) pipe.ended(pipe_bytes_, complete_ && pipe_at_end_);
}

ssize_t Call::ReadPipe(char* buffer, size_t size) {
  if (gone_) return MHD_CONTENT_READER_END_WITH_ERROR;
  if (first_taken_ < pipe_->first.size()) {
    const size_t taken = pipe_->first.copy(buffer, size, first_taken_);
    first_taken_ += taken;
    pipe_bytes_ += taken;
    return static_cast<ssize_t>(taken);
  }
  ssize_t got = 0;
  do {
    got = read(pipe_->fd.get(), buffer, size);
  } while (got < 0 && errno == EINTR);
  if (got > 0) {
    pipe_bytes_ += static_cast<uint64_t>(got);
    return got;
  }
  if (got == 0) {
    if (pipe_->whole && !pipe_->whole()) return MHD_CONTENT_READER_END_WITH_ERROR;
    pipe_at_end_ = true;
    return MHD_CONTENT_READER_END_OF_STREAM;
  }
  if (errno != EAGAIN) return MHD_CONTENT_READER_END_WITH_ERROR;
  Wait();
  daemon_.loop().Watch(pipe_->fd.get(), EPOLLIN, [this](uint32_t) { Wake(); });
  return 0;
}

uint64_t Call::SentBytes() const {
  if (pipe_) return pipe_bytes_;
  if (complete_) return length_;
  const uint64_t acknowledged = AcknowledgedBytes(peer_.fd) - acknowledged_before_;
  return std::min(acknowledged, length_);
}

}  // namespace tarnbackend::http
