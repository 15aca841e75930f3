// libmicrohttpd in an EventLoop: its descriptors, its times, its connections.
#pragma once

#include <microhttpd.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <unordered_map>

#include "backend/http/server.h"

namespace tarnbackend::http {

class Call;

// An open connection.
struct Peer {
  int fd = -1;
  std::string address;  // without port
  // The request that is under way, from its first line to the end of its answer.
  std::unique_ptr<Call> call;
  // Nothing more is read from it.
  bool input_shut = false;

  Peer();
  ~Peer();
};

class Daemon {
 public:
  // As Server's.
  Daemon(EventLoop& loop, UniqueFd listening, Options options, Handler handler);
  ~Daemon();
  Daemon(const Daemon&) = delete;
  Daemon& operator=(const Daemon&) = delete;

  void Drain(std::function<void()> drained);
  Counters counters() const { return counters_; }

  // For the calls.
  EventLoop& loop() { return loop_; }
  const Options& options() const { return options_; }
  const Handler& handler() const { return handler_; }
  bool draining() const { return draining_; }
  // Lets the connections that were resumed go on, once in a round of the loop.
  void RunSoon();
  // Ends the connections whose file lost its end while it was sent, as long as files are sent.
  void GuardFiles();
  // An answer has ended.
  void CountAnswer(const Request& request, int status, uint64_t bytes);

 private:
  class Callbacks;

  void Start(UniqueFd listening);
  void Run();
  void SetTimer();
  void Opened(MHD_Connection* connection, Peer*& peer);
  void Closed(Peer* peer);
  // Ends a connection that waits for a request, or its rest: what the kernel has is still read.
  static void ShutInput(Peer& peer);
  void TellDrainedSoon();

  EventLoop& loop_;
  const Options options_;
  const Handler handler_;
  MHD_Daemon* daemon_ = nullptr;
  int epoll_ = -1;
  std::unordered_map<Peer*, std::unique_ptr<Peer>> peers_;
  Counters counters_;
  // The last thing that the library said.
  std::string complaint_;

  EventLoop::TimerId run_timer_ = 0;
  EventLoop::TimerId idle_timer_ = 0;
  EventLoop::Clock::time_point idle_time_;
  EventLoop::TimerId drained_timer_ = 0;
  EventLoop::TimerId guard_timer_ = 0;
  std::function<void()> drained_;
  bool draining_ = false;
};

}  // namespace tarnbackend::http
