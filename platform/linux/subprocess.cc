#include <signal.h>
#include <sys/wait.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "base/file_io.h"
#include "base/log.h"
#include "base/process.h"
#include "librb/process.h"
#include "platform/linux/subprocess_state.h"

namespace librb {
namespace {

constexpr char kLogUnit[] = "subprocess";

}  // namespace

SubprocessState::SubprocessState(std::vector<std::string> argv, SubprocessState* source,
                                 std::function<bool()> before_exec,
                                 std::function<void(pid_t)> on_end)
    : source_(source), on_end_(std::move(on_end)) {
  program_.path = argv.empty() ? "" : argv.front();
  // Looked up now: no descriptor that is opened for starting may take the number later.
  program_.inherited_pipe = tarn::InheritedPipe(argv);
  program_.argv = std::move(argv);
  program_.before_exec = std::move(before_exec);
}

SubprocessState::~SubprocessState() {
  if (!running()) return;
  Signal(SIGKILL);
  int status;
  tarn::WaitChild(pid_, status);
}

bool SubprocessState::OpenOutput(tarn::UniqueFd& write_end) {
  if (!output_wanted_ || tarn::OpenPipe(output_, write_end)) return true;
  TARN_LOG_ERR("cannot open a pipe from [%s]: %s", program_.path.c_str(), std::strerror(errno));
  return false;
}

bool SubprocessState::Start() {
  if (source_ != nullptr && !source_->output_.valid()) {
    TARN_LOG_ERR("[%s] reads a process that was not started", program_.path.c_str());
    return false;
  }
  tarn::UniqueFd output_write;
  if (!OpenOutput(output_write)) return false;
  program_.standard_input = source_ != nullptr ? source_->output_.get() : -1;
  program_.standard_output = output_write.get();
  if (!child_.Launch(program_)) return false;
  pid_ = child_.pid();
  pidfd_ = tarn::OpenPidfd(pid_);
  // Gone already is no failure: where SIGCHLD is ignored, nothing stays of a child that ended.
  if (pidfd_.valid() || errno == ESRCH) return true;
  TARN_LOG_ERR("cannot watch [%s]: %s", program_.path.c_str(), std::strerror(errno));
  kill(pid_, SIGKILL);
  int status;
  tarn::WaitChild(pid_, status);
  on_end_(std::exchange(pid_, 0));
  return false;
}

void SubprocessState::Signal(int signal) {
  if (running()) tarn::SignalPidfd(pidfd_, signal);
}

bool SubprocessState::ReapIfEnded(bool& succeeded) {
  int status = 0;
  const pid_t reaped = waitpid(pid_, &status, WNOHANG);
  if (reaped == 0 || (reaped < 0 && errno != ECHILD)) return false;
  succeeded =
      State() == tarn::StartState::kExecuted && WIFEXITED(status) && WEXITSTATUS(status) == 0;
  pidfd_.reset();
  on_end_(std::exchange(pid_, 0));
  return true;
}

Subprocess::Input Subprocess::Input::Null() { return Input(); }

Subprocess::Subprocess(std::vector<std::string> argv, const Input& input)
    : state_(std::make_unique<SubprocessState>(
          std::move(argv), input.source_ != nullptr ? input.source_->state_.get() : nullptr,
          [this] { return BeforeExec(); }, [this](pid_t pid) { OnEnd(pid); })) {}

Subprocess::~Subprocess() = default;

Subprocess::Input Subprocess::Stdout() {
  state_->WantOutput();
  Input input;
  input.source_ = this;
  return input;
}

bool Subprocess::BeforeExec() { return true; }
void Subprocess::OnEnd(pid_t) {}

SubprocessTranscode::SubprocessTranscode(std::vector<std::string> argv, const Input& input,
                                         void (*on_end)(int pid), std::function<bool()> load_check)
    : Subprocess(std::move(argv), input), on_end_(on_end), load_check_(std::move(load_check)) {}

bool SubprocessTranscode::BeforeExec() { return !load_check_ || load_check_(); }

void SubprocessTranscode::OnEnd(pid_t pid) {
  if (on_end_ != nullptr) on_end_(pid);
}

}  // namespace librb
