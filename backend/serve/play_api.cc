#include "backend/serve/play_api.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <utility>

#include "backend/serve/growing_segment.h"
#include "backend/serve/playback_address.h"
#include "backend/serve/video_file.h"

namespace tarnbackend {
namespace {

// A segment never changes: whoever makes it anew makes the same.
constexpr char kKeepFragment[] = "private, max-age=3600, immutable";
constexpr int kMostAttempts = 3;
// The preference, and its name in the answer.
constexpr char kUnfinished[] = "unfinished";

const char* FragmentType(const Stream& stream) {
  return stream.kind == StreamKind::kHls ? "video/mp2t" : "video/mp4";
}

// A fragment's answer; nothing where the file is not whole: it is its owner's alone before.
std::unique_ptr<http::Response> WholeFragment(const Stream& stream, UniqueFd file) {
  struct stat status {};
  if (!file.valid() || fstat(file.get(), &status) != 0) return nullptr;
  if (!S_ISREG(status.st_mode) || (status.st_mode & S_IROTH) == 0) return nullptr;
  auto response = std::make_unique<http::Response>();
  response->type = FragmentType(stream);
  response->etag = FileTag(status);
  response->modified = status.st_mtime;
  response->cache = kKeepFragment;
  response->body = http::FileBody{std::move(file), static_cast<uint64_t>(status.st_size)};
  return response;
}

UniqueFd OpenPlain(const std::string& path) {
  return UniqueFd(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
}

std::string ReadText(const std::string& path) {
  const UniqueFd file = OpenPlain(path);
  std::string text;
  std::array<char, 65536> buffer{};
  for (;;) {
    const ssize_t got = read(file.get(), buffer.data(), buffer.size());
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) return got < 0 ? "" : text;
    text.append(buffer.data(), static_cast<size_t>(got));
  }
}

std::unique_ptr<http::Response> TextOf(const Stream& stream, const std::string& path) {
  std::string text = ReadText(path);
  if (text.empty()) return nullptr;
  auto response = std::make_unique<http::Response>();
  response->type = StreamType(stream);
  response->body = std::move(text);
  response->compress = true;
  return response;
}

// The file that a segment will be; empty for other fragments.
std::string SegmentFile(const Stream& stream, const std::string& id) {
  constexpr size_t kMostDigits = 9;
  if (stream.kind != StreamKind::kHls || id.empty() || id.size() > kMostDigits) return "";
  const auto number = ParseNumber(id);
  if (!number) return "";
  char name[32];
  std::snprintf(name, sizeof name, "/slice-%05u.ts", static_cast<unsigned>(*number));
  return stream.directory + name;
}

// The file that has a segment's name before it is made. Whoever asks while others wait already goes
// by what they have seen.
std::shared_ptr<const ino_t> StaleFile(const std::shared_ptr<StreamUse>& use,
                                       const std::string& path) {
  auto& known = (*use)->stale;
  if (const auto found = known.find(path); found != known.end()) return found->second.lock();
  const std::shared_ptr<const ino_t> stale(new ino_t(GrowingSegment::FileAt(path)),
                                           [use, path](const ino_t* file) {
                                             (*use)->stale.erase(path);
                                             delete file;
                                           });
  known[path] = stale;
  return stale;
}

// Whether a client would rather have the beginning than wait for the end (RFC 7240).
bool WantsUnfinished(const http::Request& request) {
  return request.method == "GET" && request.Header("prefer") == kUnfinished;
}

double SecondsSince(Stream::Time begin) {
  return std::chrono::duration<double>(EventLoop::Clock::now() - begin).count();
}

}  // namespace

struct PlayApi::FragmentRequest {
  ExchangePtr exchange;
  Use use;
  std::string id;
  Stream::Time begin = EventLoop::Clock::now();
  int attempts = 0;
  bool restarted = false;
  WorkerPool::CallId call = 0;
  std::shared_ptr<const ino_t> stale;
  // Of a client that would rather have the beginning than wait for the end.
  std::shared_ptr<GrowingSegment> growing;
  double first_bytes = 0;  // seconds after `begin`
};

void PlayApi::Play(const ExchangePtr& exchange) {
  const http::Request& request = exchange->request();
  const StreamRef stream = context_.streams.Find(StreamOf(request));
  if (stream == nullptr || request.Query("format") != KindName(stream->kind)) {
    exchange->Reply(Refusal("no-such-stream"));
    return;
  }
  const auto use = std::make_shared<StreamUse>(stream);
  TouchAccess(*stream, EventLoop::Clock::now());
  switch (stream->kind) {
    case StreamKind::kFile:
      File(exchange, use);
      return;
    case StreamKind::kHls:
    case StreamKind::kSmooth:
      if (request.HasQuery("fragment_id")) {
        Fragment(exchange, use, UnquotedQuery(request, "fragment_id"));
      } else {
        Playlist(exchange, use);
      }
      return;
    case StreamKind::kWebm:
    case StreamKind::kHttp:
      Bytes(exchange, use);
      return;
  }
}

void PlayApi::ForgetEnded(const std::string& id, const Answer& answer) {
  if (answer.kind == Answer::Kind::kRefused && answer.word == "stream-ended") {
    context_.streams.Remove(id);
  }
}

void PlayApi::Playlist(const ExchangePtr& exchange, const Use& use) {
  Stream& stream = **use;
  // Whatever else a client says is not kept for as long as the stream is.
  std::string type = UnquotedQuery(exchange->request(), "playlist_type");
  if (stream.kind != StreamKind::kHls || (type != "video" && type != "subtitle")) type.clear();
  const std::string subtitle =
      type == "subtitle" ? UnquotedQuery(exchange->request(), "subtitle_id") : "";
  const std::string key = "playlist " + type + " " + subtitle;
  if (const auto known = stream.paths.find(key); known != stream.paths.end()) {
    if (auto response = TextOf(stream, known->second)) {
      exchange->Reply(std::move(*response));
      return;
    }
  }
  Json::Value arguments(Json::objectValue);
  arguments["stream_id"] = stream.id;
  arguments["kind"] = KindWord(stream.kind);
  arguments["type"] = type;
  arguments["subtitle_id"] = subtitle;
  context_.CallFor(
      exchange, "playlist", std::move(arguments),
      [exchange, use, key](const Answer& answer) {
        const std::string path = answer.value["path"].asString();
        auto response = TextOf(**use, path);
        if (response == nullptr) {
          exchange->Reply(Refusal("stream-ended"));
          return;
        }
        (*use)->paths[key] = path;
        exchange->Reply(std::move(*response));
      },
      [this, id = stream.id](const Answer& answer) { ForgetEnded(id, answer); });
}

void PlayApi::Fragment(const ExchangePtr& exchange, const Use& use, const std::string& id) {
  Stream& stream = **use;
  if (const auto known = stream.paths.find(id); known != stream.paths.end()) {
    if (auto response = WholeFragment(stream, OpenPlain(known->second))) {
      exchange->Reply(std::move(*response));
      return;
    }
    stream.paths.erase(known);
  }
  if (!context_.rate.Take(exchange->request().client, EventLoop::Clock::now())) {
    exchange->Reply(Refusal("too-many-requests"));
    return;
  }
  const auto wanted = std::make_shared<FragmentRequest>();
  wanted->exchange = exchange;
  wanted->use = use;
  wanted->id = id;
  if (const std::string file = SegmentFile(stream, id); !file.empty()) {
    wanted->stale = StaleFile(use, file);
    if (WantsUnfinished(exchange->request())) SendWhileItGrows(wanted, file);
  }
  AskForFragment(wanted);
  // The worker would wait on, for up to a minute.
  exchange->OnEnd([this, weak = std::weak_ptr(wanted)] {
    if (const auto wanted = weak.lock()) context_.pool.Forget(wanted->call);
  });
}

void PlayApi::SendWhileItGrows(const std::shared_ptr<FragmentRequest>& wanted,
                               const std::string& file) {
  wanted->growing = std::make_shared<GrowingSegment>(context_.loop, file, *wanted->stale);
  wanted->growing->Await([weak = std::weak_ptr(wanted)](http::PipeBody body) {
    const auto wanted = weak.lock();
    if (wanted == nullptr) return;
    wanted->first_bytes = SecondsSince(wanted->begin);
    http::Response response;
    response.type = FragmentType(**wanted->use);
    response.headers.emplace_back("Preference-Applied", kUnfinished);
    // The request uses the stream until its last byte.
    body.ended = [use = wanted->use, ended = std::move(body.ended)](uint64_t bytes, bool whole) {
      ended(bytes, whole);
    };
    response.body = std::move(body);
    wanted->exchange->Reply(std::move(response));
  });
}

void PlayApi::FinishGrowing(FragmentRequest& wanted, const Answer& answer) {
  Stream& stream = **wanted.use;
  const bool whole =
      answer.kind == Answer::Kind::kDone && wanted.growing->Finish(answer.descriptor.get());
  if (!whole) {
    LogTrouble("fragment " + wanted.id, answer);
    wanted.growing->End();
    ForgetEnded(stream.id, answer);
    return;
  }
  stream.paths[wanted.id] = answer.value["path"].asString();
  RecordWait(context_.metrics, stream, wanted.first_bytes, answer.value["restarted"].asBool());
}

void PlayApi::AskForFragment(std::shared_ptr<FragmentRequest> wanted) {
  ++wanted->attempts;
  Stream& stream = **wanted->use;
  Json::Value arguments(Json::objectValue);
  arguments["stream_id"] = stream.id;
  arguments["kind"] = KindWord(stream.kind);
  arguments["fragment"] = wanted->id;
  const auto done = [this, wanted](Answer answer) {
    Stream& stream = **wanted->use;
    if (wanted->growing != nullptr && wanted->growing->begun()) {
      FinishGrowing(*wanted, answer);
      return;
    }
    if (answer.kind == Answer::Kind::kDone) {
      wanted->restarted = wanted->restarted || answer.value["restarted"].asBool();
      if (auto response = WholeFragment(stream, std::move(answer.descriptor))) {
        stream.paths[wanted->id] = answer.value["path"].asString();
        RecordWait(context_.metrics, stream, SecondsSince(wanted->begin), wanted->restarted);
        wanted->exchange->Reply(std::move(*response));
        return;
      }
    }
    // A worker that was lost took nothing with it: the engine is asked again.
    const bool again = answer.kind == Answer::Kind::kDone || answer.kind == Answer::Kind::kLost;
    LogTrouble("fragment " + wanted->id, answer);
    // Closed meanwhile: whatever the engine found half gone is no failure.
    if (context_.streams.Find(stream.id) == nullptr) {
      wanted->exchange->Reply(Refusal("stream-ended"));
      return;
    }
    if (again && wanted->attempts < kMostAttempts) {
      AskForFragment(wanted);
      return;
    }
    ForgetEnded(stream.id, answer);
    wanted->exchange->Reply(again ? Refusal("superseded") : RefusalOf(answer));
  };
  wanted->call = context_.pool.Submit("fragment", std::move(arguments), done);
}

void PlayApi::File(const ExchangePtr& exchange, const Use& use) {
  exchange->Reply(FileResponse(context_.library, (*use)->video));
}

}  // namespace tarnbackend
