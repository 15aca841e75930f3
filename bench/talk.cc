#include "bench/talk.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <utility>

#include "base/file_io.h"
#include "base/process.h"

namespace tarnbench {
namespace {

[[noreturn]] void Become(char* const* argv, int input, int output) {
  const bool ready = dup2(input, STDIN_FILENO) >= 0 && dup2(output, STDOUT_FILENO) >= 0;
  if (ready && tarn::PrepareExec(-1)) execv(argv[0], argv);
  _exit(127);
}

}  // namespace

TalkingProgram::TalkingProgram(Words argv) : name_(argv.front()) {
  tarn::UniqueFd its_input;
  tarn::UniqueFd its_output;
  if (!tarn::OpenPipe(its_input, input_) || !tarn::OpenPipe(output_, its_output)) {
    Fail("cannot create a pipe");
  }
  std::vector<char*> pointers;
  for (std::string& word : argv) pointers.push_back(word.data());
  pointers.push_back(nullptr);
  pid_ = tarn::ForkBlocked();
  if (pid_ < 0) Fail("cannot fork");
  if (pid_ == 0) Become(pointers.data(), its_input.get(), its_output.get());
}

TalkingProgram::~TalkingProgram() {
  if (pid_ <= 0) return;
  input_.reset();
  kill(pid_, SIGTERM);
  int status;
  tarn::WaitChild(pid_, status);
}

void TalkingProgram::Say(const std::string& line) {
  const std::string text = line + "\n";
  if (write(input_.get(), text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
    Fail(name_ + " does not listen");
  }
}

bool TalkingProgram::ReadMore() {
  std::array<char, 4096> buffer;
  ssize_t count;
  do {
    count = read(output_.get(), buffer.data(), buffer.size());
  } while (count < 0 && errno == EINTR);
  if (count > 0) unread_.append(buffer.data(), static_cast<size_t>(count));
  return count > 0;
}

std::string TalkingProgram::Listen() {
  size_t end;
  while ((end = unread_.find('\n')) == std::string::npos) {
    if (!ReadMore()) Fail(name_ + " ended without an answer");
  }
  std::string line = unread_.substr(0, end);
  unread_.erase(0, end + 1);
  return line;
}

std::string TalkingProgram::ListenToEnd() {
  while (ReadMore()) {
  }
  int status;
  tarn::WaitChild(std::exchange(pid_, -1), status);
  if (status != 0) Fail(name_ + " failed");
  return std::move(unread_);
}

}  // namespace tarnbench
