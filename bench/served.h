// `tarnvte serve`, and a client that talks to it.
#pragma once

#include <json/value.h>
#include <sys/types.h>

#include <string>

#include "base/unique_fd.h"
#include "bench/talk.h"

namespace tarnbench {

// A server of the command, on a free port of loopback. Stopped at the end.
class Served {
 public:
  // `options`, then the files that it serves.
  explicit Served(const Words& words);

  pid_t pid() const { return program_.pid(); }
  int port() const { return port_; }

 private:
  TalkingProgram program_;
  int port_;
};

// One connection that is kept. What is no success fails the measurement.
class Client {
 public:
  // Of a server on loopback.
  explicit Client(int port);

  // A body.
  std::string Get(const std::string& path);
  Json::Value GetJson(const std::string& path);
  Json::Value Post(const std::string& path, const Json::Value& body);

 private:
  std::string Ask(const std::string& request);

  tarn::UniqueFd socket_;
};

// Waits until a server's library is known; the number of the video with this title.
int VideoNumber(Client& client, const std::string& title);

}  // namespace tarnbench
