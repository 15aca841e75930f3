// A transcoder that writes segments, as its profile says. Its last argument is the pattern of their
// paths ("/DIRECTORY/slice-%05d.ts"), "-segment_start_number N" names the first, "-last N" the
// last, and "-pace MS" says how long each takes. A segment is readable only once it is whole.
//
// With "-fragment_length 5" it writes the fragments of both tracks of a presentation into the
// folder that its last argument names, from "-seek_time S" on; a fragment gets its name once it is
// whole.
//
//   -stub write     writes them and ends
//   -stub plain     the same, each readable from the start
//   -stub cut       ends at the first signal with the segment that it writes, unfinished, closed
//   -stub die       kills itself in the middle of segment "-at N", unless that is its first one
//   -stub stop      ends there as if all were well
//   -stub deaf-int  writes on when it is interrupted; ends when it is terminated
//   -stub deaf      writes on when it is interrupted or terminated
//   -stub mute      writes nothing, until a signal ends it
//   -stub arguments writes its arguments to /tmp/stub.arguments, each ended by a NUL
//   -stub report    becomes "stub report /tmp/stub.report"
//
// Behind a launcher ("-i -") it makes a segment of each block that it reads. As the launcher itself
// ("-o fd:1") it writes such blocks.
//
// Two that write to the same directory at the same time leave /tmp/overlap behind.
#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace {

constexpr size_t kBlock = 64;
constexpr int kFragmentSeconds = 5;

volatile sig_atomic_t g_signalled = 0;

void NoteSignal(int) { g_signalled = 1; }

void SleepMs(long milliseconds) {
  timespec left{milliseconds / 1000, milliseconds % 1000 * 1'000'000};
  while (nanosleep(&left, &left) != 0 && g_signalled == 0) {
  }
}

void Write(int file, const std::string& text) {
  if (write(file, text.data(), text.size()) != static_cast<ssize_t>(text.size())) _exit(1);
}

class Stub {
 public:
  Stub(int argc, char* argv[]) : argc_(argc), argv_(argv) {
    pace_ = std::atol(Option("-pace", "0"));
    last_ = std::atoi(Option("-last", "2147483646"));
    fragments_ = *Option("-fragment_length", "") != '\0';
    first_ = fragments_ ? std::atoi(Option("-seek_time", "0")) / kFragmentSeconds
                        : std::atoi(Option("-segment_start_number", "0"));
    const int at = std::atoi(Option("-at", "-1"));
    at_ = at != first_ ? at : -1;
    mode_ = Option("-stub", "write");
  }

  int Run() {
    if (mode_ == "arguments") return SaveArguments();
    if (mode_ == "report") return Report();
    if (mode_ == "cut") {
      signal(SIGINT, NoteSignal);
      signal(SIGTERM, NoteSignal);
    }
    if (mode_ == "deaf" || mode_ == "deaf-int") signal(SIGINT, SIG_IGN);
    if (mode_ == "deaf") signal(SIGTERM, SIG_IGN);
    if (mode_ == "mute") {
      for (;;) pause();
    }
    if (std::string(Option("-o", "")) == "fd:1") return Launch();
    NoteOverlap();
    const bool behind_launcher = std::string(Option("-i", "")) == "-";
    for (int number = first_; number <= last_; ++number) {
      if (behind_launcher && !ReadBlock()) return 0;
      if (!(fragments_ ? WriteFragments(number) : WriteFile(PathOf(number), number))) return 0;
    }
    return 0;
  }

 private:
  const char* Option(const std::string& name, const char* otherwise) const {
    for (int i = 1; i + 1 < argc_; ++i) {
      if (name == argv_[i]) return argv_[i + 1];
    }
    return otherwise;
  }

  std::string Output() const { return argv_[argc_ - 1]; }

  // Held as long as this process lives.
  void NoteOverlap() const {
    std::string name = Output();
    for (char& c : name) {
      if (c == '/') c = '_';
    }
    const int lock = open(("/tmp/lock" + name).c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    if (flock(lock, LOCK_EX | LOCK_NB) != 0) close(open("/tmp/overlap", O_CREAT | O_WRONLY, 0644));
  }

  std::string PathOf(int number) const {
    char path[PATH_MAX];
    std::snprintf(path, sizeof path, Output().c_str(), number);
    return path;
  }

  // False when this was the last one.
  bool WriteFragments(int number) const {
    const auto folder = [this](const char* bitrate) {
      return Output() + "/QualityLevels(" + bitrate + ")";
    };
    const std::string name = std::to_string(int64_t{number} * kFragmentSeconds * 10'000'000) + ")";
    const std::string tracks[] = {folder("40000") + "/Fragments(audio=" + name,
                                  folder("200000") + "/Fragments(video=" + name};
    mkdir(Output().c_str(), 0755);
    for (const char* bitrate : {"40000", "200000"}) mkdir(folder(bitrate).c_str(), 0755);
    for (const std::string& path : tracks) {
      if (!WriteFile(path + ".part", number)) return false;
      if (rename((path + ".part").c_str(), path.c_str()) != 0) _exit(1);
    }
    return true;
  }

  // False when this was the last one.
  bool WriteFile(const std::string& path, int number) const {
    const int file = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (file < 0) _exit(1);
    if (mode_ == "plain") fchmod(file, 0644);
    Write(file, "segment " + std::to_string(number) + "\n");
    SleepMs(pace_);
    if (number == at_ && mode_ == "die") kill(getpid(), SIGKILL);
    if (g_signalled != 0 || (number == at_ && mode_ == "stop")) return false;
    Write(file, "end " + std::to_string(number) + "\n");
    fchmod(file, 0644);
    close(file);
    return true;
  }

  int Launch() const {
    const std::string block(kBlock, 'b');
    for (int i = 0; i <= last_; ++i) {
      Write(STDOUT_FILENO, block);
      SleepMs(pace_);
    }
    return 0;
  }

  static bool ReadBlock() {
    char block[kBlock];
    size_t have = 0;
    while (have < kBlock) {
      const ssize_t n = read(STDIN_FILENO, block + have, kBlock - have);
      if (n <= 0) return false;
      have += static_cast<size_t>(n);
    }
    return true;
  }

  int SaveArguments() const {
    const int file = open("/tmp/stub.arguments", O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    for (int i = 0; i < argc_; ++i) Write(file, std::string(argv_[i]) + '\0');
    return 0;
  }

  static int Report() {
    constexpr char kStub[] = TARN_TEST_BIN "/tests/bin/stub";
    execl(kStub, kStub, "report", "/tmp/stub.report", nullptr);
    return 127;
  }

  int argc_;
  char** argv_;
  long pace_;
  int first_;
  int last_;
  int at_;
  bool fragments_;
  std::string mode_;
};

}  // namespace

int main(int argc, char* argv[]) { return argc > 1 ? Stub(argc, argv).Run() : 2; }
