// Keeps the library up to date: looks for files, and has workers probe them.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <vector>

#include "backend/library/library.h"
#include "backend/loop/event_loop.h"
#include "backend/work/worker_pool.h"

namespace tarnbackend {

class LibraryKeeper {
 public:
  using FactsPtr = std::shared_ptr<const Facts>;

  // Begins with a scan.
  LibraryKeeper(EventLoop& loop, WorkerPool& pool, Library& library);

  // A scan that is under way is finished first.
  void Rescan();

  // Calls with what is known of a video, at once where it was probed, else once it is; with null
  // when there is no such video (any more) or no probe could be made now.
  void WithFacts(int32_t id, std::function<void(FactsPtr)> done);

 private:
  void StepSoon();
  void Step();
  void ProbeNext();
  void Probe(int32_t id);
  void OnProbed(int32_t id, const FoundFile& file, const Answer& answer);

  EventLoop& loop_;
  WorkerPool& pool_;
  Library& library_;
  bool step_planned_ = false;
  bool again_ = false;        // a scan was asked for while one was under way
  bool probing_all_ = false;  // a probe that nobody waits for is under way
  std::map<int32_t, std::vector<std::function<void(FactsPtr)>>> waiting_;
};

}  // namespace tarnbackend
