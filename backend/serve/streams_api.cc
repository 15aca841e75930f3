#include "backend/serve/streams_api.h"

#include <algorithm>
#include <utility>

#include "backend/library/names.h"
#include "backend/serve/access.h"
#include "backend/serve/json_text.h"
#include "backend/serve/playback_address.h"
#include "backend/serve/run_speed.h"
#include "backend/serve/session_mark.h"

namespace tarnbackend {
namespace {

double Seconds(EventLoop::Clock::duration duration) {
  return std::chrono::duration<double>(duration).count();
}

Json::Value Milliseconds(const std::optional<double>& seconds) {
  return seconds ? Json::Value(*seconds * 1000) : Json::Value();
}

Json::Value Sentences(const std::vector<std::string>& sentences) {
  Json::Value value(Json::arrayValue);
  for (const std::string& sentence : sentences) value.append(sentence);
  return value;
}

}  // namespace

// Holds the place of the stream, and what it needs, while it is being prepared.
struct StreamsApi::Preparation {
  ExchangePtr exchange;
  StreamWish wish;
  std::shared_ptr<StreamTable::Place> place;
  LibraryKeeper::FactsPtr facts;
  StreamRef stream = std::make_shared<Stream>();
  std::string token;
  bool client_gone = false;
};

void StreamsApi::Create(const ExchangePtr& exchange) {
  std::string problem;
  const auto wish = ReadStreamWish(exchange->request().body, problem);
  if (!wish) {
    exchange->Reply(http::ErrorResponse(400, "bad-request", problem));
    return;
  }
  const auto wanted = std::make_shared<Preparation>();
  wanted->exchange = exchange;
  wanted->wish = *wish;
  wanted->token = context_.TokenFor(exchange->request());
  wanted->place = context_.streams.Reserve(exchange->request().client);
  if (wanted->place == nullptr) {
    exchange->Reply(Refusal("too-many-streams"));
    return;
  }
  exchange->OnEnd([weak = std::weak_ptr(wanted)] {
    if (const auto wanted = weak.lock()) wanted->client_gone = true;
  });
  context_.WithFacts(exchange, wish->video, [this, wanted](const LibraryKeeper::FactsPtr& facts) {
    if (!facts->error.empty()) {
      wanted->exchange->Reply(Refusal("not-playable"));
      return;
    }
    const std::string& subtitle = wanted->wish.subtitle;
    if (subtitle != "all" && subtitle != "none" && facts->FindSubtitle(subtitle) == nullptr) {
      wanted->exchange->Reply(Refusal("no-such-subtitle"));
      return;
    }
    wanted->facts = facts;
    Choose(wanted, *facts);
  });
}

void StreamsApi::Choose(const PreparationPtr& wanted, const Facts& facts) {
  const Choice choice =
      tarnbackend::Choose(facts, wanted->wish.wish, context_.machine, context_.profiles);
  if (!choice.refusal.empty()) {
    ++context_.metrics.refused[choice.refusal];
    http::Response response = Refusal(choice.refusal);
    if (!choice.why.empty()) {
      response = http::ErrorResponse(response.status, choice.refusal, choice.why.front());
    }
    wanted->exchange->Reply(std::move(response));
    return;
  }
  Stream& stream = *wanted->stream;
  stream.kind = KindNamed(choice.kind).value();
  stream.video = wanted->wish.video;
  stream.profile = choice.profile;
  stream.audio = choice.audio;
  stream.why = choice.why;
  stream.client = wanted->exchange->request().client;
  stream.duration = static_cast<unsigned>(facts.duration);
  stream.opened = stream.used = EventLoop::Clock::now();
  if (stream.kind == StreamKind::kFile) {
    stream.id = "file_" + NewToken();
    Open(wanted, wanted->stream);
    return;
  }
  Prepare(wanted);
}

void StreamsApi::Prepare(const PreparationPtr& wanted) {
  const std::string path = context_.library.Path(wanted->wish.video);
  if (path.empty()) {
    wanted->exchange->Reply(Refusal("no-such-video"));
    return;
  }
  Json::Value arguments =
      PrepareArguments(wanted->wish, *wanted->facts, *wanted->stream, path, wanted->token);
  context_.CallFor(
      wanted->exchange, "prepare", std::move(arguments),
      [this, wanted](const Answer& answer) {
        Stream& stream = *wanted->stream;
        stream.id = TextMember(answer.value, "stream_id");
        stream.directory = TextMember(answer.value, "directory");
        stream.segment_seconds =
            static_cast<double>(NumberMember(answer.value, "segment_seconds", 5));
        stream.predicted_size =
            static_cast<uint64_t>(NumberMember(answer.value, "predicted_size", 0));
        MarkStream(stream.directory);
        Open(wanted, wanted->stream);
      },
      [this](const Answer& answer) { ++context_.metrics.refused[answer.word]; });
}

void StreamsApi::Open(const PreparationPtr& wanted, StreamRef stream) {
  if (wanted->client_gone || context_.stopping) {
    context_.Close(stream);
    wanted->exchange->Reply(Refusal("stopping"));
    return;
  }
  context_.streams.Add(stream);
  ++context_.metrics.prepared[KindName(stream->kind)];

  const Facts& facts = *wanted->facts;
  const std::string tail = wanted->token.empty() ? "" : "?token=" + wanted->token;
  Json::Value value(Json::objectValue);
  value["id"] = stream->id;
  value["kind"] = KindName(stream->kind);
  value["profile"] = stream->profile;
  value["why"] = Sentences(stream->why);
  value["url"] = PlayAddress(*stream, wanted->wish.generation, wanted->token);
  value["type"] = stream->kind == StreamKind::kFile ? facts.type : StreamType(*stream);
  value["duration"] = facts.duration;
  value["seek"] = HasByteStream(stream->kind) ? "restart" : "native";
  value["audio"] = stream->audio;
  value["subtitles"] = Json::Value(Json::arrayValue);
  for (const Facts::Subtitle& subtitle : facts.subtitles) {
    Json::Value entry(Json::objectValue);
    entry["id"] = subtitle.id;
    entry["name"] = subtitle.name;
    entry["language"] = subtitle.language;
    entry["url"] =
        "/api/v1/videos/" + std::to_string(stream->video) + "/subtitles/" + subtitle.id + tail;
    value["subtitles"].append(entry);
  }
  http::Response response = JsonResponse(201, value);
  response.headers.emplace_back("Location", "/api/v1/streams/" + stream->id);
  wanted->exchange->Reply(std::move(response));
}

Json::Value StreamsApi::State(const Stream& stream) const {
  const auto now = EventLoop::Clock::now();
  Json::Value value(Json::objectValue);
  value["id"] = stream.id;
  value["kind"] = KindName(stream.kind);
  value["profile"] = stream.profile;
  value["why"] = Sentences(stream.why);
  value["video"] = stream.video;
  value["age"] = Seconds(now - stream.opened);
  value["idle"] = stream.busy > 0 ? 0 : Seconds(now - stream.used);
  value["requests"] = stream.busy;
  value["bytes"] = Json::UInt64(stream.bytes);
  value["first_wait_ms"] = Milliseconds(stream.first_wait);
  value["seek_wait_ms"] = Milliseconds(stream.seek_wait);
  value["ready"] = 0;
  value["speed"] = Json::Value();
  const bool fragments = stream.kind == StreamKind::kHls || stream.kind == StreamKind::kSmooth;
  if (!fragments) return value;
  const std::vector<MadeFragment> made = stream.kind == StreamKind::kHls
                                             ? FindSegments(stream.directory)
                                             : FindFragments(stream.directory);
  value["ready"] = Json::UInt64(made.size());
  if (const auto speed = RunSpeed(made, stream.segment_seconds)) value["speed"] = *speed;
  return value;
}

void StreamsApi::List(const ExchangePtr& exchange) {
  Json::Value value(Json::objectValue);
  value["streams"] = Json::Value(Json::arrayValue);
  for (const StreamRef& stream : context_.streams.All()) value["streams"].append(State(*stream));
  exchange->Reply(JsonResponse(200, value));
}

void StreamsApi::Show(const ExchangePtr& exchange, const std::string& id) {
  const StreamRef stream = context_.streams.Find(id);
  if (stream == nullptr) {
    exchange->Reply(Refusal("no-such-stream"));
    return;
  }
  // Whoever looks is still there.
  const StreamUse use(stream);
  TouchAccess(*stream, EventLoop::Clock::now());
  exchange->Reply(JsonResponse(200, State(*stream)));
}

void StreamsApi::Close(const ExchangePtr& exchange, const std::string& id) {
  const StreamRef stream = context_.streams.Find(id);
  if (stream == nullptr) {
    exchange->Reply(Refusal("no-such-stream"));
    return;
  }
  context_.Close(stream);
  http::Response response;
  response.status = 204;
  exchange->Reply(std::move(response));
}

}  // namespace tarnbackend
