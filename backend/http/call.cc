#include "backend/http/call.h"

#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string_view>
#include <utility>

#include "backend/http/exchange.h"
#include "backend/http/library_response.h"
#include "backend/http/socket_state.h"
#include "backend/http/target.h"
#include "backend/http/text.h"

namespace tarnbackend::http {
namespace {

// A body beyond the limit is still read, so that its sender sees the refusal and keeps its
// connection; up to here.
constexpr size_t kMaxDiscarded = 1024 * 1024;

MHD_Result AddHeader(void* headers, MHD_ValueKind, const char* name, const char* value) {
  static_cast<Headers*>(headers)->emplace_back(Lower(name), value == nullptr ? "" : value);
  return MHD_YES;
}

// Puts the host of the request line where it overrides the header (RFC 9112, section 3.2.2).
void ReplaceHost(const std::string& host, Headers& headers) {
  std::erase_if(headers, [](const auto& header) { return header.first == "host"; });
  headers.emplace_back("host", host);
}

// What the library has checked; the largest number for one that is longer than any.
uint64_t ContentLength(const Request& request) {
  return std::strtoull(request.Header("content-length").c_str(), nullptr, 10);
}

Response BodyTooLong() {
  return ErrorResponse(413, "too-large", "The body of the request is too long.");
}

}  // namespace

Call::Call(Daemon& daemon, Peer& peer, MHD_Connection* connection, const char* line)
    : daemon_(daemon),
      peer_(peer),
      connection_(connection),
      line_(line),
      request_(std::make_shared<Request>()) {
  if (line != nullptr) request_->target = line;
}

Call::~Call() {
  if (exchange_ != nullptr) exchange_->Detach();
  const uint64_t bytes = status_ == 0 ? 0 : SentBytes();
  if (response_) DropResponse(std::move(*response_));
  TellPipeEnded();
  for (const auto& ended : std::exchange(ended_, {})) ended();
  if (status_ != 0) daemon_.CountAnswer(*request_, status_, bytes);
}

MHD_Result Call::Step(const char* method, const char* version, const char* upload, size_t* size) {
  if (!headers_read_) return ReadHeaders(method, version);
  if (*size > 0) return ReadBody(upload, std::exchange(*size, 0));
  if (gone_) return MHD_NO;
  if (!called_ && !response_) CallHandler();
  if (response_) return Send();
  Wait();
  return MHD_YES;
}

MHD_Result Call::ReadHeaders(const char* method, const char* version) {
  headers_read_ = true;
  request_->method = method;
  request_->client = peer_.address;
  MHD_get_connection_values(connection_, MHD_HEADER_KIND, &AddHeader, &request_->headers);
  response_ = Refusal(*request_, ReadTarget(version), daemon_.options());

  const auto* head = MHD_get_connection_info(connection_, MHD_CONNECTION_INFO_REQUEST_HEADER_SIZE);
  if (head != nullptr && head->header_size > daemon_.options().max_header_bytes) {
    response_ = ErrorResponse(431, "too-large", "The head of the request is too long.");
  }
  const uint64_t length = ContentLength(*request_);
  if (length <= daemon_.options().max_body) return MHD_YES;
  response_ = BodyTooLong();
  // One that would be long to read, or that the client has not begun to send: answered now, which
  // ends the connection.
  const bool asks_first = !request_->Header("expect").empty();
  return asks_first || length > kMaxDiscarded ? Send() : MHD_YES;
}

bool Call::ReadTarget(std::string_view version) {
  std::optional<Target> target = ParseTarget(request_->target);
  if (!target) return false;
  request_->path = std::move(target->path);
  request_->query = std::move(target->query);
  if (!target->authority.empty()) ReplaceHost(target->authority, request_->headers);
  // The version stands behind the target in one buffer: where it does not, a NUL ended the target.
  if (version.data() != line_ + request_->target.size() + 1) return false;
  return version != MHD_HTTP_VERSION_1_1 || !request_->Header("host").empty();
}

MHD_Result Call::ReadBody(const char* upload, size_t size) {
  const size_t room = daemon_.options().max_body - request_->body.size();
  if (!response_ && size <= room) {
    request_->body.append(upload, size);
    return MHD_YES;
  }
  if (!response_) response_ = BodyTooLong();
  discarded_ += size;
  return discarded_ <= kMaxDiscarded ? MHD_YES : MHD_NO;
}

void Call::CallHandler() {
  called_ = true;
  const auto exchange = std::make_shared<CallExchange>(*this, request_);
  exchange_ = exchange.get();
  try {
    daemon_.handler()(exchange);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "tarnvte: %s: %s\n", request_->target.c_str(), error.what());
    exchange->Reply(ErrorResponse(500, "failed", "The request could not be answered."));
  }
}

void Call::ExchangeGone() {
  exchange_ = nullptr;
  Reply(ErrorResponse(500, "failed", "The request could not be answered."));
}

void Call::Reply(Response response) {
  if (response_ || status_ != 0 || gone_) return DropResponse(std::move(response));
  response_ = std::move(response);
  if (waiting_) Wake();
}

MHD_Result Call::Send() {
  const bool head = request_->method == "HEAD";
  const Answer answer = DecideAnswer(*request_, *response_, daemon_.options());
  const bool with_body = !head && answer.status != 304;
  if (auto* pipe = std::get_if<PipeBody>(&response_->body)) TakePipe(std::move(*pipe));
  if (with_body) NoteFile(answer);
  const LibraryResponse made = MakeLibraryResponse(answer, *response_, *this, with_body);
  response_.reset();
  if (daemon_.draining()) MHD_add_response_header(made.response, "Connection", "close");
  status_ = answer.status;
  length_ = with_body ? made.length : 0;
  if (file_ >= 0) daemon_.GuardFiles();
  if (length_ > 0) acknowledged_before_ = AcknowledgedBytes(peer_.fd);
  const MHD_Result queued =
      MHD_queue_response(connection_, static_cast<unsigned>(status_), made.response);
  MHD_destroy_response(made.response);
  return queued;
}

void Call::NoteFile(const Answer& answer) {
  const auto* file = std::get_if<FileBody>(&response_->body);
  if (file == nullptr || answer.body != Answer::Body::kPlain) return;
  file_ = file->fd.get();
  file_end_ = answer.first + answer.length;
}

bool Call::FileLostItsEnd() const {
  struct stat state {};
  return file_ >= 0 &&
         (fstat(file_, &state) != 0 || static_cast<uint64_t>(state.st_size) < file_end_);
}

}  // namespace tarnbackend::http
