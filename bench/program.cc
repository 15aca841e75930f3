#include "bench/program.h"

#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <stdexcept>
#include <utility>

#include "base/file_io.h"
#include "base/process.h"
#include "bench/samples.h"

namespace tarnbench {
namespace {

std::vector<char*> Pointers(Words& argv) {
  std::vector<char*> pointers;
  for (std::string& word : argv) pointers.push_back(word.data());
  pointers.push_back(nullptr);
  return pointers;
}

[[noreturn]] void Become(char* const* argv, int keep) {
  if (tarn::NullStandardStreams() && tarn::PrepareExec(keep)) execv(argv[0], argv);
  _exit(127);
}

pid_t Start(Words& argv, int keep) {
  const std::vector<char*> pointers = Pointers(argv);
  const pid_t pid = tarn::ForkBlocked();
  if (pid < 0) Fail("cannot fork");
  if (pid == 0) Become(pointers.data(), keep);
  return pid;
}

ssize_t ReadSome(int fd, char* buffer, size_t size) {
  ssize_t count;
  do {
    count = read(fd, buffer, size);
  } while (count < 0 && errno == EINTR);
  return count;
}

double Seconds(const timeval& time) {
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
}

double ProcessorSecondsOf(int who) {
  rusage usage{};
  getrusage(who, &usage);
  return Seconds(usage.ru_utime) + Seconds(usage.ru_stime);
}

}  // namespace

void Fail(const std::string& what) { throw std::runtime_error(what); }

Program::Program(Words argv, int keep) : name_(argv.front()), pid_(Start(argv, keep)) {}

Program::~Program() {
  if (pid_ < 0) return;
  kill(pid_, SIGKILL);
  int status;
  tarn::WaitChild(pid_, status);
}

void Program::Wait() {
  int status;
  tarn::WaitChild(pid_, status);
  pid_ = -1;
  if (status != 0) Fail(name_ + " failed");
}

PipedProgram::PipedProgram(Words argv, const std::string& output) {
  tarn::UniqueFd write_end;
  if (!tarn::OpenPipe(output_, write_end)) Fail("cannot create a pipe");
  argv.back() = output + std::to_string(write_end.get());
  program_.emplace(std::move(argv), write_end.get());
}

void PipedProgram::ReadFirstByte() {
  char byte;
  if (ReadSome(output_.get(), &byte, 1) != 1) Fail("the bare command wrote nothing");
}

size_t PipedProgram::ReadToEnd() {
  std::vector<char> buffer(64 * 1024);
  size_t total = 0;
  ssize_t count;
  while ((count = ReadSome(output_.get(), buffer.data(), buffer.size())) > 0) {
    total += static_cast<size_t>(count);
  }
  if (count < 0) Fail("the bare command's output cannot be read");
  program_->Wait();
  return total;
}

double SecondsToFirstByte(const Words& argv, const std::string& output) {
  const double begun = Now();
  PipedProgram program(argv, output);
  program.ReadFirstByte();
  return Now() - begun;
}

double SecondsToRun(const Words& argv) {
  return SecondsOf([&] { Program(argv).Wait(); });
}

void AdoptOrphans() {
  if (prctl(PR_SET_CHILD_SUBREAPER, 1) != 0) Fail("cannot become a subreaper");
}

void ReapChildren() {
  while (waitpid(-1, nullptr, 0) > 0 || errno == EINTR) {
  }
}

double ProcessorSeconds() {
  return ProcessorSecondsOf(RUSAGE_SELF) + ProcessorSecondsOf(RUSAGE_CHILDREN);
}

void ExpectSameAmount(size_t engine_bytes, size_t bare_bytes) {
  constexpr double kShare = 0.02;
  const auto engine = static_cast<double>(engine_bytes);
  const auto bare = static_cast<double>(bare_bytes);
  if (bare_bytes > 0 && std::abs(engine - bare) <= kShare * bare) return;
  Fail("the engine delivered " + std::to_string(engine_bytes) + " bytes, the bare command " +
       std::to_string(bare_bytes));
}

}  // namespace tarnbench
