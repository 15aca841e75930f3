// A program that the process tests start instead of a transcoder.
//
//   stub exit N            ends with that status
//   stub raise N           ends by that signal
//   stub sleep             runs until a signal ends it
//   stub say TEXT          writes TEXT to standard output
//   stub spew              writes to standard output until nobody reads it
//   stub copy FILE         copies standard input to FILE
//   stub note FILE NAME... appends the name of each caught signal (INT, TERM) to FILE, for those
//                          named, and runs on; first appends "ready"
//   stub report FILE       writes to FILE what it inherited, a line each
//
// Further arguments are allowed everywhere, so that "pipe:N" can be given.
#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>

namespace {

int g_note_fd = -1;

void Note(int signal) {
  const char* const text = signal == SIGINT ? "INT " : "TERM ";
  [[maybe_unused]] const ssize_t n = write(g_note_fd, text, std::strlen(text));
}

[[noreturn]] void RunOn() {
  for (;;) pause();
}

int NoteSignals(int argc, char* argv[]) {
  g_note_fd = open(argv[2], O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
  for (int i = 3; i < argc; ++i) {
    if (std::strcmp(argv[i], "INT") == 0) signal(SIGINT, Note);
    if (std::strcmp(argv[i], "TERM") == 0) signal(SIGTERM, Note);
  }
  if (write(g_note_fd, "ready ", 6) != 6) return 1;
  RunOn();
}

int Spew() {
  const char block[4096] = {};
  while (write(STDOUT_FILENO, block, sizeof block) > 0) {
  }
  return 1;
}

int Copy(const char* path) {
  const int out = open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  char block[4096];
  ssize_t n;
  while ((n = read(STDIN_FILENO, block, sizeof block)) > 0) {
    if (write(out, block, static_cast<size_t>(n)) != n) return 1;
  }
  return n == 0 ? 0 : 1;
}

void ReportDescriptors(std::ostream& out) {
  DIR* const folder = opendir("/proc/self/fd");
  const int own = dirfd(folder);
  while (const dirent* entry = readdir(folder)) {
    const int fd = std::atoi(entry->d_name);
    if (entry->d_name[0] == '.' || fd == own) continue;
    char target[256] = {};
    if (readlinkat(own, entry->d_name, target, sizeof target - 1) < 0) continue;
    out << "fd " << fd << " " << (std::strncmp(target, "pipe:", 5) == 0 ? "pipe" : target) << "\n";
  }
  closedir(folder);
}

int Report(const char* path) {
  // Descriptors first: the file itself must not be among them.
  std::string descriptors;
  {
    std::ostringstream out;
    ReportDescriptors(out);
    descriptors = out.str();
  }
  std::ofstream out(path);
  out << descriptors;
  for (char** entry = environ; *entry != nullptr; ++entry) out << "env " << *entry << "\n";
  const mode_t mask = umask(0);
  out << "umask " << std::oct << mask << std::dec << "\n";
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    for (const char* set : {"SigBlk", "SigIgn"}) {
      if (line.starts_with(set)) out << line << "\n";
    }
  }
  // To the end of the input, so that whoever writes it does not fail.
  char block[4096];
  while (read(STDIN_FILENO, block, sizeof block) > 0) {
  }
  return out.flush() ? 0 : 1;
}

}  // namespace

int main(int argc, char* argv[]) {
  const std::string mode = argc > 1 ? argv[1] : "";
  if (mode == "sleep") RunOn();
  if (mode == "spew") return Spew();
  if (argc < 3) return 2;
  if (mode == "exit") return std::atoi(argv[2]);
  if (mode == "raise") return raise(std::atoi(argv[2]));
  if (mode == "say") return std::fputs(argv[2], stdout) < 0 ? 1 : 0;
  if (mode == "copy") return Copy(argv[2]);
  if (mode == "note") return NoteSignals(argc, argv);
  if (mode == "report") return Report(argv[2]);
  return 2;
}
