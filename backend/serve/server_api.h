// What the server says about itself and its machine.
#pragma once

#include <functional>
#include <string>

#include "backend/serve/context.h"

namespace tarnbackend {

class ServerApi {
 public:
  // What only the program as a whole knows.
  struct Source {
    std::string version;
    // What the call "platform" says of the machine.
    std::function<const Json::Value&()> platform;
    std::function<http::Counters()> counters;
  };

  ServerApi(Context& context, Source source);

  void Health(const ExchangePtr& exchange);
  void Registry(const ExchangePtr& exchange);
  void Rescan(const ExchangePtr& exchange);
  // The machine's transcoders are asked for each time.
  void WriteMetrics(const ExchangePtr& exchange);

 private:
  http::Response MetricsResponse(const Answer& registry) const;

  Context& context_;
  Source source_;
  EventLoop::Clock::time_point begin_;
};

}  // namespace tarnbackend
