// A transcoder that does what its profile says: "-stub MODE" anywhere among its options. Its output
// is the last argument, "pipe:N", or, as the launcher, that of "-o fd:N".
//
//   brief      writes "done" and ends
//   spew       writes until nobody reads it
//   silent     writes "." and then nothing more, until a signal ends it
//   mute       never writes anything, until a signal ends it
//   polite     silent, but writes "end" and ends when it is interrupted
//   deaf-int   silent, and ignores SIGINT; writes "term" and ends when it is terminated
//   deaf       silent, and ignores SIGINT and SIGTERM
//   lone       appends "ran" to /tmp/lone.log, or "overlap" when another one runs meanwhile
//   arguments  writes its arguments to /tmp/stub.arguments, each ended by a NUL
//   report     becomes "stub report /tmp/stub.report"
#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <time.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

namespace {

int g_output = -1;

void Say(const std::string& text) {
  if (write(g_output, text.data(), text.size()) < 0) _exit(1);
}

void SayEnd(int) {
  Say("end");
  _exit(0);
}

void SayTerm(int) {
  Say("term");
  _exit(0);
}

[[noreturn]] void RunOn() {
  for (;;) pause();
}

int Spew() {
  const std::string block(4096, 's');
  while (write(g_output, block.data(), block.size()) > 0) {
  }
  return 1;
}

int Lone() {
  const int log = open("/tmp/lone.log", O_RDWR | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
  const bool alone = flock(log, LOCK_EX | LOCK_NB) == 0;
  const std::string line = alone ? "ran\n" : "overlap\n";
  if (write(log, line.data(), line.size()) < 0) return 1;
  const timespec a_while{0, 20'000'000};
  nanosleep(&a_while, nullptr);
  Say("done");
  return 0;
}

int Arguments(int argc, char* argv[]) {
  std::string all;
  for (int i = 0; i < argc; ++i) all.append(argv[i]).push_back('\0');
  const int file = open("/tmp/stub.arguments", O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (write(file, all.data(), all.size()) != static_cast<ssize_t>(all.size())) return 1;
  Say("done");
  return 0;
}

int Report(char* pipe) {
  constexpr char kStub[] = TARN_TEST_BIN "/tests/bin/stub";
  execl(kStub, kStub, "report", "/tmp/stub.report", pipe, nullptr);
  return 127;
}

}  // namespace

int main(int argc, char* argv[]) {
  std::string mode;
  std::string output = argv[argc - 1];
  for (int i = 1; i + 1 < argc; ++i) {
    if (std::string(argv[i]) == "-stub") mode = argv[i + 1];
    if (std::string(argv[i]) == "-o") output = argv[i + 1];
  }
  if (!output.starts_with("pipe:") && !output.starts_with("fd:")) return 2;
  g_output = std::atoi(output.c_str() + output.find(':') + 1);

  if (mode == "brief") return Say("done"), 0;
  if (mode == "spew") return Spew();
  if (mode == "lone") return Lone();
  if (mode == "arguments") return Arguments(argc, argv);
  if (mode == "report") return Report(output.data());
  if (mode == "mute") RunOn();
  if (mode == "polite") signal(SIGINT, SayEnd);
  if (mode == "deaf-int" || mode == "deaf") signal(SIGINT, SIG_IGN);
  if (mode == "deaf-int") signal(SIGTERM, SayTerm);
  if (mode == "deaf") signal(SIGTERM, SIG_IGN);
  if (mode != "silent" && mode != "polite" && mode != "deaf-int" && mode != "deaf") return 2;
  Say(".");
  RunOn();
}
