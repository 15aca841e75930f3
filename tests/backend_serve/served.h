// Runs the built `tarnvte serve`, and talks to it as a client does.
#pragma once

#include <json/value.h>
#include <sys/types.h>

#include <string>
#include <utility>
#include <vector>

namespace tarn_test {

struct Reply {
  int status = 0;                                            // 0: no answer
  std::vector<std::pair<std::string, std::string>> headers;  // names in lower case
  std::string body;

  // The first value; empty when there is none.
  std::string Header(const std::string& name) const;
  // The body as JSON; null when it is none.
  Json::Value Json() const;
};

// Status 0 for a text that is no answer.
Reply ParseReply(const std::string& text);

// A folder with a page, and with copies or links of these test files.
std::string LibraryOf(const std::vector<std::string>& names);

class Served {
 public:
  // Serves a folder, on a free port of loopback unless `options`, which come before it, say
  // otherwise. Ready once its library
  // was scanned.
  explicit Served(const std::string& folder, const std::vector<std::string>& options = {});
  ~Served();
  Served(const Served&) = delete;
  Served& operator=(const Served&) = delete;

  // What curl says, with its options before the path: {"-X", "DELETE"}.
  Reply Get(const std::string& path, const std::vector<std::string>& options = {}) const;
  Reply Post(const std::string& path, const std::string& json) const;

  // The number of the video with this title.
  int Video(const std::string& title) const;
  // Prepares a stream; its description. Fails the test when it is refused.
  Json::Value Open(const std::string& request) const;

  void Signal(int signal) const;
  // Waits for the end; the exit status, 128 + n when signal n ended it.
  int Wait();
  pid_t pid() const { return pid_; }
  const std::string& address() const { return address_; }
  // What it logged.
  std::string Log() const;

 private:
  pid_t pid_ = -1;
  std::string address_;  // "http://127.0.0.1:1234"
  std::string log_path_;
};

}  // namespace tarn_test
