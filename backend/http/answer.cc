#include "backend/http/answer.h"

#include <algorithm>

#include "backend/http/accept_encoding.h"
#include "backend/http/byte_range.h"
#include "backend/http/etag.h"
#include "backend/http/http_date.h"
#include "backend/http/text.h"

namespace tarnbackend::http {
namespace {

// What is shorter fits into one packet anyway.
constexpr size_t kWorthCompressing = 1024;

void AddIfMissing(Headers& headers, const std::string& name, const std::string& value) {
  const bool present = std::any_of(headers.begin(), headers.end(), [&name](const auto& header) {
    return EqualsIgnoringCase(header.first, name);
  });
  if (!present) headers.emplace_back(name, value);
}

// Which forms a response has, and which one the request gets.
struct Form {
  bool negotiated = false;
  bool gzip = false;
};

Form ChooseForm(const Request& request, const Response& response, bool ranged) {
  const auto* text = std::get_if<std::string>(&response.body);
  Form form;
  form.negotiated = response.gzip != nullptr ||
                    (response.compress && text != nullptr && text->size() > kWorthCompressing);
  form.gzip = form.negotiated && !ranged && WantsGzip(request.Header("accept-encoding"));
  return form;
}

bool IsRead(const Request& request) { return request.method == "GET" || request.method == "HEAD"; }

// Whether the client has it already (RFC 9110, section 13.2.2).
bool Unchanged(const Request& request, const Response& response, const std::string& etag) {
  const std::string none_match = request.Header("if-none-match");
  if (!none_match.empty()) return !etag.empty() && NamesEtag(none_match, etag);
  if (response.modified == 0) return false;
  const auto since = ParseHttpDate(request.Header("if-modified-since"));
  return since && response.modified <= *since;
}

std::optional<uint64_t> KnownSize(const Response& response) {
  if (const auto* text = std::get_if<std::string>(&response.body)) return text->size();
  if (const auto* file = std::get_if<FileBody>(&response.body)) return file->size;
  return std::nullopt;
}

void AddValidators(const Response& response, const std::string& etag, Headers& headers) {
  if (!etag.empty()) AddIfMissing(headers, "ETag", etag);
  if (response.modified != 0) AddIfMissing(headers, "Last-Modified", HttpDate(response.modified));
}

void AddCommon(const Response& response, const Options& options, Headers& headers) {
  AddIfMissing(headers, "Cache-Control", response.cache.empty() ? "no-store" : response.cache);
  AddIfMissing(headers, "X-Content-Type-Options", "nosniff");
  AddIfMissing(headers, "Referrer-Policy", "no-referrer");
  if (options.cors_origin.empty()) {
    AddIfMissing(headers, "Cross-Origin-Resource-Policy", "same-origin");
    return;
  }
  AddIfMissing(headers, "Access-Control-Allow-Origin", options.cors_origin);
  AddIfMissing(headers, "Access-Control-Expose-Headers",
               "Accept-Ranges, Content-Range, ETag, Retry-After");
}

// The answer for a range that lies behind the end.
void Unsatisfiable(uint64_t size, const Options& options, Answer& answer) {
  const Response error = ErrorResponse(416, "bad-range", "The range lies behind the end.");
  answer.status = error.status;
  answer.headers = {{"Content-Type", error.type},
                    {"Content-Range", "bytes */" + std::to_string(size)}};
  answer.body = Answer::Body::kText;
  answer.text = std::get<std::string>(error.body);
  AddCommon(error, options, answer.headers);
}

}  // namespace

Answer DecideAnswer(const Request& request, const Response& response, const Options& options) {
  Answer answer;
  answer.status = response.status;
  answer.headers = response.headers;
  const std::optional<uint64_t> size = KnownSize(response);
  const bool conditional = IsRead(request) && response.status == 200;
  const bool rangeable = conditional && size && !response.etag.empty();
  const std::string range = request.method == "GET" && rangeable ? request.Header("range") : "";

  const Form form = ChooseForm(request, response, !range.empty());
  const std::string etag = form.gzip ? GzipEtag(response.etag) : response.etag;
  answer.length = size.value_or(0);
  if (!size) {
    answer.body = Answer::Body::kPipe;
  } else if (form.gzip) {
    answer.body = response.gzip != nullptr ? Answer::Body::kGzip : Answer::Body::kCompress;
  }

  if (conditional && Unchanged(request, response, etag)) {
    answer.status = 304;
  } else if (!range.empty()) {
    const std::string if_range = request.Header("if-range");
    ByteRange part;
    if (if_range.empty() || IfRangeHolds(if_range, etag)) part = ParseRange(range, *size);
    if (part.kind == ByteRange::Kind::kUnsatisfiable) {
      Unsatisfiable(*size, options, answer);
      return answer;
    }
    if (part.kind == ByteRange::Kind::kPart) {
      answer.status = 206;
      answer.first = part.first;
      answer.length = part.length;
      answer.headers.emplace_back("Content-Range",
                                  "bytes " + std::to_string(part.first) + "-" +
                                      std::to_string(part.first + part.length - 1) + "/" +
                                      std::to_string(*size));
    }
  }

  if (!response.type.empty()) AddIfMissing(answer.headers, "Content-Type", response.type);
  if (form.gzip) answer.headers.emplace_back("Content-Encoding", "gzip");
  if (form.negotiated) answer.headers.emplace_back("Vary", "Accept-Encoding");
  if (rangeable && !form.gzip) AddIfMissing(answer.headers, "Accept-Ranges", "bytes");
  AddValidators(response, etag, answer.headers);
  AddCommon(response, options, answer.headers);
  return answer;
}

}  // namespace tarnbackend::http
