#include "backend/serve/api.h"

#include <utility>

#include "backend/serve/access.h"
#include "backend/serve/playback_address.h"

namespace tarnbackend {
namespace {

constexpr std::string_view kPrefix = "/api/v1/";

std::vector<std::string> Split(std::string_view text) {
  std::vector<std::string> parts;
  for (size_t begin = 0; begin <= text.size();) {
    const size_t end = std::min(text.find('/', begin), text.size());
    parts.emplace_back(text.substr(begin, end - begin));
    begin = end + 1;
  }
  return parts;
}

bool IsRead(const http::Request& request) {
  return request.method == "GET" || request.method == "HEAD";
}

// The request has one of these methods ("GET" stands for HEAD, too); the client was told otherwise.
bool Allows(const ExchangePtr& exchange, std::initializer_list<std::string_view> methods) {
  std::string allowed;
  for (const std::string_view method : methods) {
    if (exchange->request().method == method) return true;
    if (method == "GET" && exchange->request().method == "HEAD") return true;
    allowed += (allowed.empty() ? "" : ", ") + std::string(method == "GET" ? "GET, HEAD" : method);
  }
  http::Response response = Refusal("method-not-allowed");
  response.headers.emplace_back("Allow", allowed);
  exchange->Reply(std::move(response));
  return false;
}

}  // namespace

Api::Api(Context& context, const PageFiles& page, ServerApi::Source source)
    : context_(context),
      page_(page),
      videos_(context),
      streams_(context),
      play_(context),
      server_(context, std::move(source)) {}

bool Api::IsTurnedAway(const ExchangePtr& exchange) const {
  const http::Request& request = exchange->request();
  if (context_.stopping) {
    exchange->Reply(Refusal("stopping"));
    return true;
  }
  if (IsForeignPage(request, context_.cors_origin)) {
    exchange->Reply(Refusal("forbidden"));
    return true;
  }
  if (context_.token.empty()) return false;
  const Proof proof = FindProof(request, context_.token);
  if (proof == Proof::kNone) {
    http::Response response = Refusal("token-required");
    response.headers.emplace_back("WWW-Authenticate", "Bearer");
    exchange->Reply(std::move(response));
    return true;
  }
  if (proof == Proof::kQuery && request.path == "/" && IsRead(request)) {
    // Out of the address, which people copy, into the browser.
    http::Response response;
    response.status = 303;
    response.headers = {{"Location", "/"}, {"Set-Cookie", TokenCookie(context_.token)}};
    exchange->Reply(std::move(response));
    return true;
  }
  return false;
}

void Api::Handle(const ExchangePtr& exchange) {
  if (IsTurnedAway(exchange)) return;
  const std::string& path = exchange->request().path;
  if (path == "/metrics") {
    if (Allows(exchange, {"GET"})) server_.WriteMetrics(exchange);
  } else if (path.starts_with(kPrefix)) {
    Route(exchange, Split(std::string_view(path).substr(kPrefix.size())));
  } else {
    ReplyPage(exchange);
  }
}

void Api::Route(const ExchangePtr& exchange, const Parts& parts) {
  const std::string& first = parts[0];
  if (first == "videos") return RouteVideo(exchange, parts);
  if (first == "streams") return RouteStream(exchange, parts);
  struct Plain {
    std::string_view name;
    std::string_view method;
    std::function<void()> run;
  };
  const Plain plain[] = {
      {"play", "GET", [&] { play_.Play(exchange); }},
      {"subtitle", "GET", [&] { play_.Subtitle(exchange); }},
      {"health", "GET", [&] { server_.Health(exchange); }},
      {"registry", "GET", [&] { server_.Registry(exchange); }},
      {"rescan", "POST", [&] { server_.Rescan(exchange); }},
  };
  for (const Plain& route : plain) {
    if (parts.size() != 1 || route.name != first) continue;
    if (Allows(exchange, {route.method})) route.run();
    return;
  }
  exchange->Reply(Refusal("no-such-address"));
}

void Api::RouteVideo(const ExchangePtr& exchange, const Parts& parts) {
  if (!Allows(exchange, {"GET"})) return;
  if (parts.size() == 1) return videos_.List(exchange);
  const auto number = ParseNumber(parts[1]);
  const auto id = number && *number <= INT32_MAX ? static_cast<int32_t>(*number) : 0;
  const std::string what = parts.size() > 2 ? parts[2] : "";
  if (parts.size() == 2) return videos_.Show(exchange, id);
  if (parts.size() == 3 && what == "file") return videos_.File(exchange, id);
  if (parts.size() == 3 && what == "picture") return videos_.Picture(exchange, id);
  if (parts.size() == 4 && what == "subtitles") return videos_.Subtitle(exchange, id, parts[3]);
  exchange->Reply(Refusal("no-such-address"));
}

void Api::RouteStream(const ExchangePtr& exchange, const Parts& parts) {
  const std::string& method = exchange->request().method;
  if (parts.size() == 1) {
    if (!Allows(exchange, {"GET", "POST"})) return;
    return method == "POST" ? streams_.Create(exchange) : streams_.List(exchange);
  }
  if (parts.size() == 2) {
    if (!Allows(exchange, {"GET", "DELETE"})) return;
    return method == "DELETE" ? streams_.Close(exchange, parts[1])
                              : streams_.Show(exchange, parts[1]);
  }
  if (parts.size() == 3 && parts[2] == "close") {
    if (Allows(exchange, {"POST"})) streams_.Close(exchange, parts[1]);
    return;
  }
  exchange->Reply(Refusal("no-such-address"));
}

void Api::ReplyPage(const ExchangePtr& exchange) const {
  auto response = page_.Get(exchange->request().path);
  if (response == nullptr) {
    exchange->Reply(Refusal("no-such-address"));
  } else if (Allows(exchange, {"GET"})) {
    exchange->Reply(std::move(*response));
  }
}

}  // namespace tarnbackend
