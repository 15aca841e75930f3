// What is left on the machine, and clients that curl cannot be.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "base/unique_fd.h"
#include "served.h"

namespace tarn_test {

// Process numbers whose command line holds a text.
std::vector<int> ProcessesWith(const std::string& text);
bool NoTranscoderRuns();
// No stream has a working directory.
bool NoStreamIsLeft();
size_t DescriptorsOf(pid_t process);

// A connection whose client says and reads what it likes.
class RawClient {
 public:
  // `receive_buffer` bytes at most lie in the kernel, where that is not 0.
  explicit RawClient(const Served& server, int receive_buffer = 0);

  // False when the server has closed the connection.
  bool Send(const std::string& text);
  void Get(const std::string& path);
  // So many bytes, or fewer when the connection ends.
  std::string Read(size_t bytes);
  // Until the connection ends; the answer.
  Reply ReadReply();
  // With a reset.
  void Drop();
  int fd() const { return fd_.get(); }

 private:
  tarn::UniqueFd fd_;
};

}  // namespace tarn_test
