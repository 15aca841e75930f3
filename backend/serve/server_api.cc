#include "backend/serve/server_api.h"

#include <map>
#include <utility>

#include "backend/serve/json_text.h"

namespace tarnbackend {

ServerApi::ServerApi(Context& context, Source source)
    : context_(context), source_(std::move(source)), begin_(EventLoop::Clock::now()) {}

void ServerApi::Health(const ExchangePtr& exchange) {
  Json::Value value(Json::objectValue);
  value["status"] = "ok";
  value["version"] = source_.version;
  value["uptime"] = Json::Int64(
      std::chrono::duration_cast<std::chrono::seconds>(EventLoop::Clock::now() - begin_).count());
  value["library"]["videos"] = Json::UInt64(context_.library.size());
  value["library"]["scanning"] = context_.library.scanning();
  value["platform"] = source_.platform()["platform"];
  value["hardware"] = source_.platform()["hardware"];
  exchange->Reply(JsonResponse(200, value));
}

void ServerApi::Registry(const ExchangePtr& exchange) {
  context_.CallFor(
      exchange, "registry", Json::Value(Json::objectValue),
      [exchange](const Answer& answer) { exchange->Reply(JsonResponse(200, answer.value)); });
}

void ServerApi::Rescan(const ExchangePtr& exchange) {
  context_.keeper.Rescan();
  http::Response response;
  response.status = 202;
  exchange->Reply(std::move(response));
}

void ServerApi::WriteMetrics(const ExchangePtr& exchange) {
  context_.pool.Submit("registry", Json::Value(Json::objectValue),
                       [this, exchange](const Answer& answer) {
                         LogTrouble("registry", answer);
                         exchange->Reply(MetricsResponse(answer));
                       });
}

http::Response ServerApi::MetricsResponse(const Answer& registry) const {
  MetricsText text;
  std::map<std::string, double> open;
  for (const StreamRef& stream : context_.streams.All()) ++open[KindName(stream->kind)];
  text.Begin("tarnvte_streams_open", "gauge", "Streams that clients have open.");
  for (const auto& [kind, count] : open) {
    text.Value("tarnvte_streams_open", "kind=\"" + kind + "\"", count);
  }
  tarnbackend::WriteMetrics(context_.metrics, text);

  if (registry.kind == Answer::Kind::kDone) {
    text.Begin("tarnvte_transcoders_running", "gauge", "Registered transcoders of the machine.");
    for (const char* kind : {"hardware", "software"}) {
      const Json::Value& running = registry.value[kind]["running"];
      text.Value("tarnvte_transcoders_running", "kind=\"" + std::string(kind) + "\"",
                 running.isNumeric() ? running.asDouble() : 0);
    }
  }
  const PoolCounters pool = context_.pool.counters();
  text.Begin("tarnvte_workers", "gauge", "Worker processes.");
  text.Value("tarnvte_workers", "state=\"busy\"", pool.busy);
  text.Value("tarnvte_workers", "state=\"idle\"", pool.workers - pool.busy);
  text.Begin("tarnvte_calls_waiting", "gauge", "Calls that wait for a worker.");
  text.Value("tarnvte_calls_waiting", "", pool.waiting);
  text.Begin("tarnvte_calls_total", "counter", "Calls of workers that ended, however.");
  text.Value("tarnvte_calls_total", "", static_cast<double>(pool.calls));
  text.Begin("tarnvte_calls_failed_total", "counter", "Calls that ended with their worker.");
  text.Value("tarnvte_calls_failed_total", "cause=\"lost\"", static_cast<double>(pool.lost));
  text.Value("tarnvte_calls_failed_total", "cause=\"late\"", static_cast<double>(pool.late));

  const http::Counters http = source_.counters();
  text.Begin("tarnvte_connections", "gauge", "Open connections.");
  text.Value("tarnvte_connections", "", static_cast<double>(http.connections));
  text.Begin("tarnvte_sent_bytes_total", "counter", "Bytes of answers sent, without headers.");
  text.Value("tarnvte_sent_bytes_total", "", static_cast<double>(http.bytes));

  http::Response response;
  response.type = "text/plain; version=0.0.4; charset=utf-8";
  response.body = text.text();
  response.compress = true;
  return response;
}

}  // namespace tarnbackend
