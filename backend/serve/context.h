// What the parts of the API share.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "backend/http/server.h"
#include "backend/library/library.h"
#include "backend/library/profiles.h"
#include "backend/loop/event_loop.h"
#include "backend/serve/error_words.h"
#include "backend/serve/library_keeper.h"
#include "backend/serve/metrics.h"
#include "backend/serve/rate_limit.h"
#include "backend/serve/stream_table.h"
#include "backend/work/worker_pool.h"

namespace tarnbackend {

using ExchangePtr = std::shared_ptr<http::Exchange>;

// Logs a call that was neither done nor refused, with its cause.
void LogTrouble(const std::string& call, const Answer& answer);
// A request of the stream was answered after so many seconds: they belong to the stream's start,
// or, where the transcoder was started for it, to a seek.
void RecordWait(Metrics& metrics, Stream& stream, double seconds, bool restarted);

struct Context {
  EventLoop& loop;
  WorkerPool& pool;
  Library& library;
  LibraryKeeper& keeper;
  StreamTable& streams;
  Metrics& metrics;
  RateLimit& rate;
  const Machine& machine;
  const ProfileLists& profiles;
  // Empty: none is required.
  const std::string& token;
  // Another site, whose pages may use the API; empty: none.
  const std::string& cors_origin;
  // Every request is refused from now on, and no stream opened.
  bool stopping = false;

  // Has a worker run a call for a client; answers it instead where it may not do any more now.
  // `done` gets an answer of kind kDone; for every other the client is told, and then `refused`
  // called, where there is one.
  void CallFor(const ExchangePtr& exchange, const std::string& name, Json::Value arguments,
               std::function<void(Answer)> done,
               std::function<void(const Answer&)> refused = nullptr);
  // Calls with what is known of a video, once it was probed; answers instead where there is no such
  // video, or no probe could be made now.
  void WithFacts(const ExchangePtr& exchange, int32_t video,
                 std::function<void(LibraryKeeper::FactsPtr)> done);
  // Answers with the part of a video's subtitle between two times, in seconds, as WebVTT.
  // `subtitle` is one of those that a probe found.
  void SubtitlePiece(const ExchangePtr& exchange, int32_t video, const Facts::Subtitle& subtitle,
                     double start, double end, const std::string& code_page);
  // The token that addresses in an answer must carry: players that are no browser have no cookie.
  std::string TokenFor(const http::Request& request) const;
  // Ends the stream: it has no name any more, and a worker closes it.
  void Close(const StreamRef& stream);
};

}  // namespace tarnbackend
