// What the tests of the host services share: small files, captured log lines, processes.
#pragma once

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <functional>
#include <iterator>
#include <string>
#include <vector>

#include "base/log.h"
#include "base/paths.h"

namespace host_test {

inline void WriteFile(const std::string& path, const std::string& text) {
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  file << text;
  ASSERT_TRUE(file.flush().good()) << path;
}

inline std::string ReadFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

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
  WriteFile(tarn::paths::kProductInfo, "unique=\"" + unique + "\"\n");
}

// Log lines written during its lifetime.
class LogCapture {
 public:
  struct Entry {
    int priority;
    std::string line;
  };

  LogCapture() {
    entries_.clear();
    tarn::SetLogSink([](int priority, const char* line) { entries_.push_back({priority, line}); });
  }
  ~LogCapture() { tarn::SetLogSink(nullptr); }

  const std::vector<Entry>& entries() const { return entries_; }

  // How many lines of `unit` say `text` after their line number.
  int Count(const std::string& unit, const std::string& text) const {
    int count = 0;
    for (const Entry& entry : entries_) {
      const size_t blank = entry.line.find(' ');
      if (entry.line.starts_with(unit + ":") && entry.line.substr(blank + 1) == text) ++count;
    }
    return count;
  }

 private:
  static inline std::vector<Entry> entries_;
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
