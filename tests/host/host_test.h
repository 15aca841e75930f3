// What the tests of the host services share: log lines, children, the product information.
#pragma once

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <functional>
#include <string>
#include <utility>

#include "base/paths.h"
#include "tests/support/host_files.h"
#include "tests/support/log_capture.h"

namespace host_test {

inline bool Exists(const std::string& path) {
  struct stat status {};
  return lstat(path.c_str(), &status) == 0;
}

inline mode_t ModeOf(const std::string& path) {
  struct stat status {};
  EXPECT_EQ(stat(path.c_str(), &status), 0) << path;
  return status.st_mode & 07777;
}

// The product information that platform detection reads once per process.
inline void SetProduct(const std::string& unique) {
  tarn::test::WriteText(tarn::paths::kProductInfo, "unique=\"" + unique + "\"\n");
}

// Log lines written during its lifetime.
class LogCapture : public tarn::test::LogCapture {
 public:
  // How many lines of `unit` say `text` after their line number.
  int Count(const std::string& unit, const std::string& text) const {
    int count = 0;
    for (const tarn::test::LogLine& line : Lines()) {
      const size_t blank = line.text.find(' ');
      if (line.text.starts_with(unit + ":") && line.text.substr(blank + 1) == text) ++count;
    }
    return count;
  }
};

// A forked child that runs `body` and exits with its result.
class Child {
 public:
  explicit Child(const std::function<int()>& body) : pid_(fork()) {
    if (pid_ == 0) _exit(body());
  }
  ~Child() {
    if (pid_ > 0) {
      kill(pid_, SIGKILL);
      Wait();
    }
  }
  Child(Child&& other) noexcept : pid_(std::exchange(other.pid_, -1)) {}
  Child(const Child&) = delete;

  pid_t pid() const { return pid_; }

  // Its exit status, or -1 when a signal ended it.
  int Wait() {
    int status = 0;
    while (waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
    }
    pid_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }

 private:
  pid_t pid_;
};

// A process that lives until the object goes.
inline Child Sleeper() {
  return Child([] {
    pause();
    return 0;
  });
}

// The id of a process that has ended.
inline pid_t DeadPid() {
  Child child([] { return 0; });
  const pid_t pid = child.pid();
  child.Wait();
  return pid;
}

// What `body` returns when it runs in a process of its own.
inline std::string InChild(const std::function<std::string()>& body) {
  int ends[2];
  EXPECT_EQ(pipe(ends), 0);
  Child child([&] {
    const std::string text = body();
    return write(ends[1], text.data(), text.size()) == static_cast<ssize_t>(text.size()) ? 0 : 1;
  });
  close(ends[1]);
  std::string text;
  char buffer[4096];
  for (ssize_t n; (n = read(ends[0], buffer, sizeof buffer)) > 0;) {
    text.append(buffer, static_cast<size_t>(n));
  }
  close(ends[0]);
  EXPECT_EQ(child.Wait(), 0);
  return text;
}

}  // namespace host_test
