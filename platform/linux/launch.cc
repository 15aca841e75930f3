#include "platform/linux/launch.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "base/file_io.h"
#include "base/log.h"
#include "base/process.h"

namespace tarn {
namespace {

constexpr char kLogUnit[] = "launch";

// What a child reports instead of an errno when its hook refuses.
constexpr int kRefused = -1;

[[noreturn]] void FailStart(int report, int error, int status) {
  WriteAll(report, {reinterpret_cast<const char*>(&error), sizeof error});
  _exit(status);
}

bool HookAgrees(const std::function<bool()>& hook) {
  try {
    return !hook || hook();
  } catch (...) {
    return false;  // must not unwind into the parent's code
  }
}

bool RedirectStreams(const Program& program) {
  if (!NullStandardStreams()) return false;
  if (program.standard_input >= 0 && dup2(program.standard_input, 0) < 0) return false;
  return program.standard_output < 0 || dup2(program.standard_output, 1) >= 0;
}

// Only async-signal-safe calls, except the hook.
[[noreturn]] void BecomeProgram(const Program& program, char* const argv[], int report) {
  if (!HookAgrees(program.before_exec)) FailStart(report, kRefused, 1);
  if (RedirectStreams(program) && PrepareExec(program.inherited_pipe)) {
    execv(program.path.c_str(), argv);
  }
  FailStart(report, errno, 127);
}

bool IsRunnable(const Program& program) {
  if (program.path.empty() || program.path.front() != '/') {
    TARN_LOG_ERR("not an absolute path [%s]", program.path.c_str());
    return false;
  }
  const auto cut = [](const std::string& text) { return text.find('\0') != std::string::npos; };
  if (cut(program.path) || std::any_of(program.argv.begin(), program.argv.end(), cut)) {
    TARN_LOG_ERR("NUL in an argument of [%s]", program.path.c_str());
    return false;
  }
  return true;
}

}  // namespace

bool LaunchedChild::Launch(const Program& program) {
  if (!IsRunnable(program)) return false;
  const std::vector<char*> argv = ExecArguments(program.argv);
  UniqueFd write_end;
  if (!OpenPipe(report_, write_end)) {
    TARN_LOG_ERR("cannot open a pipe for [%s]: %s", program.path.c_str(), std::strerror(errno));
    return false;
  }
  const pid_t pid = ForkBlocked();
  if (pid == 0) BecomeProgram(program, argv.data(), write_end.get());
  if (pid < 0) {
    TARN_LOG_ERR("cannot fork for [%s]: %s", program.path.c_str(), std::strerror(errno));
    report_.reset();
    return false;
  }
  fcntl(report_.get(), F_SETFL, O_NONBLOCK);
  path_ = program.path;
  pid_ = pid;
  return true;
}

StartState LaunchedChild::State() {
  if (state_ != StartState::kPending) return state_;
  int error = 0;
  ssize_t n;
  do {
    n = read(report_.get(), &error, sizeof error);
  } while (n < 0 && errno == EINTR);
  if (n < 0 && errno == EAGAIN) return StartState::kPending;
  report_.reset();
  if (n != sizeof error) return state_ = StartState::kExecuted;
  if (error == kRefused) {
    TARN_LOG_ERR("start of [%s] was refused", path_.c_str());
  } else {
    TARN_LOG_ERR("cannot execute [%s]: %s", path_.c_str(), std::strerror(error));
  }
  return state_ = StartState::kFailed;
}

int InheritedPipe(const std::vector<std::string>& argv) {
  for (auto argument = argv.rbegin(); argument != argv.rend(); ++argument) {
    const int fd = PipeDescriptor(*argument);
    if (fd >= 0) return fcntl(fd, F_GETFD) < 0 ? -1 : fd;
  }
  return -1;
}

int RunProgram(const std::string& path, const std::vector<std::string>& argv) {
  Program program;
  program.path = path;
  program.argv = argv;
  program.inherited_pipe = InheritedPipe(argv);
  LaunchedChild child;
  if (!child.Launch(program)) return -1;
  int status;
  if (!WaitChild(child.pid(), status) || child.State() == StartState::kFailed) return -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace tarn
