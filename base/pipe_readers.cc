#include "base/pipe_readers.h"

#include <fcntl.h>
#include <poll.h>

#include <cerrno>
#include <string>

#include "base/file_io.h"

namespace tarn {
namespace {

UniqueFd Reopen(int fd, int flags) {
  return UniqueFd(OpenRetry(("/proc/self/fd/" + std::to_string(fd)).c_str(), flags));
}

}  // namespace

PipeReaders::PipeReaders(int fd) : pipe_(Reopen(fd, O_PATH)) {}

bool PipeReaders::Gone() const {
  if (!pipe_.valid()) return false;
  // A write end for this moment only. poll(2) reports an error on it when nobody reads.
  const UniqueFd writer = Reopen(pipe_.get(), O_WRONLY | O_NONBLOCK);
  if (!writer.valid()) return errno == ENXIO;
  pollfd state{writer.get(), POLLOUT, 0};
  int ready;
  do {
    ready = poll(&state, 1, 0);
  } while (ready < 0 && errno == EINTR);
  return ready > 0 && (state.revents & POLLERR) != 0;
}

}  // namespace tarn
