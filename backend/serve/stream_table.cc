#include "backend/serve/stream_table.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <utility>

#include "backend/loop/unique_fd.h"

namespace tarnbackend {
namespace {

struct KindRow {
  StreamKind kind;
  const char* name;
  const char* word;
};

constexpr KindRow kKinds[] = {
    {StreamKind::kFile, "file", ""},       {StreamKind::kHls, "hls", "HLS"},
    {StreamKind::kSmooth, "smooth", "SS"}, {StreamKind::kWebm, "webm", "WEBM"},
    {StreamKind::kHttp, "http", "HTTP"},
};

const KindRow& RowOf(StreamKind kind) { return kKinds[static_cast<size_t>(kind)]; }

}  // namespace

const char* KindName(StreamKind kind) { return RowOf(kind).name; }

const char* KindWord(StreamKind kind) { return RowOf(kind).word; }

std::optional<StreamKind> KindNamed(const std::string& name) {
  for (const KindRow& row : kKinds) {
    if (name == row.name) return row.kind;
  }
  return std::nullopt;
}

bool HasByteStream(StreamKind kind) {
  return kind == StreamKind::kWebm || kind == StreamKind::kHttp;
}

std::string StreamType(const Stream& stream) {
  switch (stream.kind) {
    case StreamKind::kFile:
      return "";
    case StreamKind::kHls:
      return "application/vnd.apple.mpegurl";
    case StreamKind::kSmooth:
      return "application/vnd.ms-sstr+xml";
    case StreamKind::kWebm:
      // H.264 is not for WebM, whose container is that of Matroska.
      return stream.profile.find("264_") == std::string::npos ? "video/webm" : "video/x-matroska";
    case StreamKind::kHttp:
      break;
  }
  // The container of a progressive stream follows from its profile's sound.
  if (stream.profile.find("_wmv2_") != std::string::npos) return "video/x-ms-asf";
  return stream.profile.find("_aac_") != std::string::npos ? "video/x-matroska" : "video/mp2t";
}

StreamTable::Place::Place(StreamTable& table, std::string client)
    : table_(table), client_(std::move(client)) {
  ++table_.reserved_[client_];
}

StreamTable::Place::~Place() {
  const auto found = table_.reserved_.find(client_);
  if (--found->second == 0) table_.reserved_.erase(found);
}

size_t StreamTable::CountOf(const std::string& client) const {
  const auto reserved = reserved_.find(client);
  size_t count = reserved == reserved_.end() ? 0 : reserved->second;
  for (const auto& [id, stream] : streams_) count += stream->client == client ? 1 : 0;
  return count;
}

std::shared_ptr<StreamTable::Place> StreamTable::Reserve(const std::string& client) {
  size_t all = streams_.size();
  for (const auto& [name, count] : reserved_) all += count;
  if (all >= max_streams_ || CountOf(client) >= max_per_client_) return nullptr;
  return std::make_shared<Place>(*this, client);
}

StreamRef StreamTable::Find(const std::string& id) const {
  const auto found = streams_.find(id);
  return found == streams_.end() ? nullptr : found->second;
}

std::vector<StreamRef> StreamTable::All() const {
  std::vector<StreamRef> all;
  for (const auto& [id, stream] : streams_) all.push_back(stream);
  return all;
}

std::vector<StreamRef> StreamTable::Idle(Stream::Time now, std::chrono::seconds idle) const {
  std::vector<StreamRef> found;
  for (const auto& [id, stream] : streams_) {
    if (stream->busy == 0 && now - stream->used >= idle) found.push_back(stream);
  }
  return found;
}

StreamUse::StreamUse(StreamRef stream) : stream_(std::move(stream)) {
  ++stream_->busy;
  stream_->used = std::chrono::steady_clock::now();
}

StreamUse::~StreamUse() {
  --stream_->busy;
  stream_->used = std::chrono::steady_clock::now();
}

void TouchAccess(Stream& stream, Stream::Time now) {
  if (stream.directory.empty() || now - stream.touched < std::chrono::seconds(1)) return;
  stream.touched = now;
  const UniqueFd file(open((stream.directory + "/access_status").c_str(),
                           O_WRONLY | O_CREAT | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK, 0644));
  // A directory that is gone is noticed by the request itself.
  if (file.valid()) futimens(file.get(), nullptr);
}

}  // namespace tarnbackend
