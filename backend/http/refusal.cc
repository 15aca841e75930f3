#include <algorithm>

#include "backend/http/answer.h"
#include "backend/http/host_name.h"

namespace tarnbackend::http {
namespace {

// What a browser asks before it lets another origin's page send something.
Response Preflight() {
  Response response;
  response.status = 204;
  response.headers = {{"Access-Control-Allow-Methods", "GET, HEAD, POST, DELETE"},
                      {"Access-Control-Allow-Headers", "Authorization, Content-Type, Range"},
                      {"Access-Control-Max-Age", "600"}};
  return response;
}

size_t CountHeaders(const Request& request, std::string_view name) {
  return static_cast<size_t>(
      std::count_if(request.headers.begin(), request.headers.end(),
                    [name](const auto& header) { return header.first == name; }));
}

}  // namespace

std::optional<Response> Refusal(const Request& request, bool text_ok, const Options& options) {
  if (!text_ok) {
    return ErrorResponse(400, "bad-request", "The address of the request cannot be read.");
  }
  if (CountHeaders(request, "host") > 1) {
    return ErrorResponse(400, "bad-request", "The request has several hosts.");
  }
  if (!HostAllowed(request.Header("host"), options.hosts)) {
    return ErrorResponse(421, "wrong-host", "This server is not known by that name.");
  }
  const std::string& method = request.method;
  if (method == "GET" || method == "HEAD" || method == "POST" || method == "DELETE") {
    return std::nullopt;
  }
  if (method == "OPTIONS" && !options.cors_origin.empty()) return Preflight();
  Response response = ErrorResponse(405, "method-not-allowed", "The server has no such method.");
  response.headers.emplace_back("Allow", "GET, HEAD, POST, DELETE");
  return response;
}

}  // namespace tarnbackend::http
