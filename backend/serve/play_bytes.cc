// Byte streams: one pipe for each request, from a transcoder of its own.
#include <fcntl.h>
#include <sys/epoll.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <utility>

#include "backend/serve/play_api.h"
#include "backend/serve/playback_address.h"

namespace tarnbackend {
namespace {

constexpr std::chrono::seconds kFirstByteTime{30};

}  // namespace

// Waits for the first bytes, so that a transcoder that makes none is an error and not an empty
// video.
struct PlayApi::ByteRequest : std::enable_shared_from_this<ByteRequest> {
  ByteRequest(Context& context, ExchangePtr exchange, Use use, UniqueFd pipe, std::string range)
      : context(context),
        exchange(std::move(exchange)),
        use(std::move(use)),
        pipe(std::move(pipe)),
        range(std::move(range)) {}

  void Begin() {
    fcntl(pipe.get(), F_SETFL, fcntl(pipe.get(), F_GETFL) | O_NONBLOCK);
    const auto self = shared_from_this();
    context.loop.Watch(pipe.get(), EPOLLIN, [self](uint32_t) { self->ReadFirst(); });
    timer = context.loop.After(kFirstByteTime, [self] { self->End("late"); });
    exchange->OnEnd([self] { self->End(""); });
  }

  void ReadFirst() {
    std::array<char, 65536> buffer{};
    const ssize_t got = read(pipe.get(), buffer.data(), buffer.size());
    if (got < 0 && (errno == EAGAIN || errno == EINTR)) return;
    if (got <= 0) {
      End("failed");
      return;
    }
    StopWaiting();
    Answer(std::string(buffer.data(), static_cast<size_t>(got)));
  }

  void Answer(std::string first) {
    Stream& stream = **use;
    const double seconds = std::chrono::duration<double>(EventLoop::Clock::now() - begin).count();
    RecordWait(context.metrics, stream, seconds, true);
    http::Response response;
    response.type = StreamType(stream);
    if (!range.empty()) {
      response.status = 206;
      response.headers.emplace_back("Content-Range", range);
    }
    // The request uses the stream until its last byte.
    response.body = http::PipeBody{std::move(pipe),
                                   [use = use](uint64_t bytes, bool) { (*use)->bytes += bytes; },
                                   std::move(first)};
    exchange->Reply(std::move(response));
  }

  void End(const std::string& word) {
    if (!pipe.valid()) return;
    StopWaiting();
    pipe.reset();
    if (!word.empty()) exchange->Reply(Refusal(word));
  }

  void StopWaiting() {
    context.loop.Unwatch(pipe.get());
    context.loop.Cancel(timer);
  }

  Context& context;
  ExchangePtr exchange;
  Use use;
  UniqueFd pipe;
  std::string range;  // the value of Content-Range
  Stream::Time begin = EventLoop::Clock::now();
  EventLoop::TimerId timer = 0;
};

void PlayApi::Bytes(const ExchangePtr& exchange, const Use& use) {
  const http::Request& request = exchange->request();
  Stream& stream = **use;
  if (request.method == "HEAD") {
    http::Response response;
    response.type = StreamType(stream);
    exchange->Reply(std::move(response));
    return;
  }
  Json::Value arguments(Json::objectValue);
  arguments["stream_id"] = stream.id;
  arguments["kind"] = KindWord(stream.kind);
  const std::string start = request.Query("start");
  const auto second = ParseNumber(start.empty() ? "0" : start);
  if (!second || *second > stream.duration) {
    exchange->Reply(Refusal(second ? "bad-range" : "bad-request"));
    return;
  }
  std::string range;
  const auto offset = ParseOpenRange(request.Header("range"));
  if (stream.kind == StreamKind::kHttp && start.empty() && offset.value_or(0) > 0) {
    if (*offset >= stream.predicted_size) {
      exchange->Reply(Refusal("bad-range"));
      return;
    }
    arguments["offset"] = Json::UInt64(*offset);
    range = "bytes " + std::to_string(*offset) + "-" + std::to_string(stream.predicted_size - 1) +
            "/" + std::to_string(stream.predicted_size);
  } else {
    arguments["start"] = Json::UInt64(*second);
  }
  context_.CallFor(
      exchange, "bytes", std::move(arguments),
      [this, exchange, use, range, begin = EventLoop::Clock::now()](Answer answer) {
        const auto wanted = std::make_shared<ByteRequest>(context_, exchange, use,
                                                          std::move(answer.descriptor), range);
        wanted->begin = begin;
        wanted->Begin();
      },
      [this, id = stream.id](const Answer& answer) { ForgetEnded(id, answer); });
}

}  // namespace tarnbackend
