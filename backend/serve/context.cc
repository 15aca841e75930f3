#include "backend/serve/context.h"

#include <syslog.h>

#include "backend/serve/access.h"

namespace tarnbackend {

void LogTrouble(const std::string& call, const Answer& answer) {
  if (answer.kind == Answer::Kind::kDone || answer.kind == Answer::Kind::kRefused) return;
  syslog(LOG_ERR, "%s: %s", call.c_str(), answer.cause.c_str());
}

void RecordWait(Metrics& metrics, Stream& stream, double seconds, bool restarted) {
  const std::string kind = KindName(stream.kind);
  if (!stream.first_wait) {
    stream.first_wait = seconds;
    metrics.first_wait[kind].Add(seconds);
  } else if (restarted) {
    stream.seek_wait = seconds;
    metrics.seek_wait[kind].Add(seconds);
  }
}

void Context::CallFor(const ExchangePtr& exchange, const std::string& name, Json::Value arguments,
                      std::function<void(Answer)> done,
                      std::function<void(const Answer&)> refused) {
  if (!rate.Take(exchange->request().client, EventLoop::Clock::now())) {
    exchange->Reply(Refusal("too-many-requests"));
    return;
  }
  pool.Submit(name, std::move(arguments), [=](Answer answer) {
    if (answer.kind == Answer::Kind::kDone) {
      done(std::move(answer));
      return;
    }
    LogTrouble(name, answer);
    exchange->Reply(RefusalOf(answer));
    if (refused) refused(answer);
  });
}

void Context::WithFacts(const ExchangePtr& exchange, int32_t video,
                        std::function<void(LibraryKeeper::FactsPtr)> done) {
  keeper.WithFacts(video, [=, this](const LibraryKeeper::FactsPtr& facts) {
    if (facts != nullptr) {
      done(facts);
    } else {
      exchange->Reply(Refusal(library.Find(video) == nullptr ? "no-such-video" : "busy"));
    }
  });
}

void Context::SubtitlePiece(const ExchangePtr& exchange, int32_t video,
                            const Facts::Subtitle& subtitle, double start, double end,
                            const std::string& code_page) {
  const std::string source =
      subtitle.is_file ? library.SubtitlePath(video, subtitle) : subtitle.engine_id;
  if (source.empty()) {
    exchange->Reply(Refusal("no-such-subtitle"));
    return;
  }
  Json::Value arguments(Json::objectValue);
  arguments["source"] = library.Path(video);
  arguments["subtitle_id"] = source;
  arguments["start"] = start;
  arguments["end"] = end;
  arguments["code_page"] = code_page;
  CallFor(exchange, "subtitle", std::move(arguments), [exchange](Answer answer) {
    http::Response response;
    response.type = "text/vtt; charset=utf-8";
    response.body = std::move(answer.bytes);
    response.compress = true;
    response.cache = "private, max-age=60";
    exchange->Reply(std::move(response));
  });
}

std::string Context::TokenFor(const http::Request& request) const {
  if (token.empty()) return "";
  return FindProof(request, token) == Proof::kCookie ? "" : token;
}

void Context::Close(const StreamRef& stream) {
  streams.Remove(stream->id);
  if (stream->kind == StreamKind::kFile) return;
  Json::Value arguments(Json::objectValue);
  arguments["stream_id"] = stream->id;
  arguments["kind"] = KindWord(stream->kind);
  pool.Submit("close", std::move(arguments),
              [id = stream->id](const Answer& answer) { LogTrouble("close " + id, answer); });
}

}  // namespace tarnbackend
