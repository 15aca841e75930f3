// A client and a server in one event loop.
#pragma once

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "backend/http/server.h"

namespace test {

using tarnbackend::EventLoop;
using tarnbackend::UniqueFd;

struct Reply {
  int status = 0;
  std::vector<std::pair<std::string, std::string>> headers;  // names in lower case
  std::string body;

  // Empty when it is missing.
  std::string Header(const std::string& name) const;
};

// Takes the first whole reply out of what a server sent; false when it is not whole. `head`: it is
// to a HEAD request.
bool TakeReply(std::string& received, Reply& reply, bool head = false);

class WebClient {
 public:
  // Connects. `receive_buffer` bytes at most lie in the kernel, where that is not 0.
  WebClient(EventLoop& loop, const std::string& address, int receive_buffer = 0);
  ~WebClient() { Close(); }
  WebClient(const WebClient&) = delete;
  WebClient& operator=(const WebClient&) = delete;

  void Send(const std::string& text);
  void Get(const std::string& target, const std::string& headers = "");
  // From now on nothing is read, or everything again.
  void Pause() { Watch(false); }
  void Resume() { Watch(true); }
  // With a reset, not with an end.
  void Reset();
  void Close();

  // What came and was not taken.
  std::string received;
  // The server has ended the connection, or there is none.
  bool ended = false;

 private:
  void Watch(bool reading);
  void SendMore();
  void Ready(uint32_t events);

  EventLoop& loop_;
  UniqueFd fd_;
  std::string unsent_;
  bool reading_ = true;
};

// Runs the loop until a condition holds; false when it never does.
template <typename Condition>
bool RunUntil(EventLoop& loop, Condition condition) {
  // "Does not hang": far beyond anything that is expected.
  const auto end = EventLoop::Clock::now() + std::chrono::seconds(60);
  while (!condition()) {
    if (EventLoop::Clock::now() > end) return false;
    loop.After(std::chrono::milliseconds(1), [&loop] { loop.Stop(); });
    loop.Run();
  }
  return true;
}

}  // namespace test
