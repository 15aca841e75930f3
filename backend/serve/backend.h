// The server as a whole: what it serves, and how it begins and ends.
#pragma once

#include <json/value.h>

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "backend/http/server.h"
#include "backend/loop/event_loop.h"
#include "backend/loop/unique_fd.h"
#include "backend/serve/api.h"
#include "backend/serve/context.h"
#include "backend/work/worker_pool.h"

namespace tarnbackend {

struct BackendOptions {
  std::vector<std::string> folders;  // and files
  std::string page;                  // folder of the player page
  std::string version;
  std::vector<std::string> worker;  // the command of a worker
  std::string token;                // empty: none is required
  std::string cors_origin;
  size_t max_streams = 64;
  size_t max_streams_per_client = 16;
  double calls_per_second = 100;  // of a client, that cost a worker's time
  unsigned max_workers = 64;
};

class Backend {
 public:
  // Blocks SIGINT, SIGTERM and SIGHUP in the process, which has one thread. Throws
  // std::runtime_error and std::system_error.
  Backend(BackendOptions options, UniqueFd listening);
  ~Backend();
  Backend(const Backend&) = delete;
  Backend& operator=(const Backend&) = delete;

  // Serves until SIGINT or SIGTERM, then closes every stream; a second signal, or 20 s, end it at
  // once. SIGHUP looks for new files.
  void Run();

 private:
  void WatchSignals();
  void OnSignal(int signal);
  void CloseLeftStreams();
  void Sweep();
  void LookAfterStreams();
  void BeginStop();
  void EndWhenClosed();

  EventLoop loop_;
  BackendOptions options_;
  // Before the pool, whose unanswered calls hold places in it.
  StreamTable streams_;
  WorkerPool pool_;
  Library library_;
  PageFiles page_;
  Metrics metrics_;
  RateLimit rate_;
  Machine machine_;
  ProfileLists profiles_;
  LibraryKeeper keeper_;
  Json::Value platform_{Json::objectValue};
  Context context_;
  UniqueFd signals_;
  std::unique_ptr<Api> api_;
  std::unique_ptr<http::Server> server_;
  bool drained_ = false;
};

}  // namespace tarnbackend
