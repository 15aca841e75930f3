// The streams that clients have open.
#pragma once

#include <json/value.h>
#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

namespace tarnbackend {

enum class StreamKind { kFile, kHls, kSmooth, kWebm, kHttp };

// "hls", as the API says it, and "HLS", as the engine does; a file has no word of the engine.
const char* KindName(StreamKind kind);
const char* KindWord(StreamKind kind);
std::optional<StreamKind> KindNamed(const std::string& name);

// Read as one pipe of bytes.
bool HasByteStream(StreamKind kind);

struct Stream {
  using Time = std::chrono::steady_clock::time_point;

  std::string id;
  StreamKind kind = StreamKind::kFile;
  int32_t video = 0;
  std::string profile;
  std::string audio;  // the track's id; empty for a video without sound
  std::vector<std::string> why;
  std::string client;
  std::string directory;        // the engine's working directory; empty for a file
  double segment_seconds = 0;   // of an HLS segment
  unsigned duration = 0;        // seconds
  uint64_t predicted_size = 0;  // of a progressive stream, bytes
  uint64_t generation = 0;      // of a byte stream: counts its runs

  Time opened;
  Time used;          // by a client's last request
  Time touched;       // when the engine was last told so
  unsigned busy = 0;  // requests that are being answered

  std::optional<double> first_wait;  // seconds
  std::optional<double> seek_wait;
  uint64_t bytes = 0;

  // Paths that the engine gave, by what was asked for. A file may be cleared by a seek at any time.
  std::unordered_map<std::string, std::string> paths;
  // Of segments that are being waited for, by path: the file that had it when the first asked.
  std::unordered_map<std::string, std::weak_ptr<const ino_t>> stale;
};

// The MIME type of what is played first; "" for a file, which has its own.
std::string StreamType(const Stream& stream);

// Keeps what must not be forgotten of a stream while a request of it is being answered.
using StreamRef = std::shared_ptr<Stream>;

// One thread.
class StreamTable {
 public:
  StreamTable(size_t max_streams, size_t max_per_client)
      : max_streams_(max_streams), max_per_client_(max_per_client) {}

  // Holds a place for a stream that is being prepared, until it goes.
  class Place {
   public:
    Place(StreamTable& table, std::string client);
    ~Place();
    Place(const Place&) = delete;
    Place& operator=(const Place&) = delete;

   private:
    StreamTable& table_;
    std::string client_;
  };
  // Null when the client, or all of them together, have as many as may be.
  std::shared_ptr<Place> Reserve(const std::string& client);

  void Add(StreamRef stream) { streams_[stream->id] = std::move(stream); }
  // Null when there is none.
  StreamRef Find(const std::string& id) const;
  void Remove(const std::string& id) { streams_.erase(id); }

  std::vector<StreamRef> All() const;
  // Those that nobody used for `idle`, and that no request is using.
  std::vector<StreamRef> Idle(Stream::Time now, std::chrono::seconds idle) const;
  size_t size() const { return streams_.size(); }

 private:
  size_t CountOf(const std::string& client) const;

  const size_t max_streams_;
  const size_t max_per_client_;
  std::map<std::string, StreamRef> streams_;
  std::map<std::string, size_t> reserved_;
};

// A request uses the stream for as long as this lives.
class StreamUse {
 public:
  explicit StreamUse(StreamRef stream);
  ~StreamUse();
  StreamUse(const StreamUse&) = delete;
  StreamUse& operator=(const StreamUse&) = delete;
  Stream& operator*() const { return *stream_; }
  Stream* operator->() const { return stream_.get(); }

 private:
  StreamRef stream_;
};

// Tells the engine, at most once in a second, that a client is still there: the time of
// "access_status" in the stream's working directory.
void TouchAccess(Stream& stream, Stream::Time now);

}  // namespace tarnbackend
