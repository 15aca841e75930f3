// What goes onto the wire for a response: a pure decision.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "backend/http/server.h"

namespace tarnbackend::http {

struct Answer {
  enum class Body {
    kPlain,     // `length` bytes of the response's body from `first` on
    kPipe,      // what the pipe holds
    kGzip,      // the response's own compressed form
    kCompress,  // the response's text, to be compressed
    kText,      // `text`
  };
  int status = 200;
  // Everything but Date, Connection, Content-Length and Transfer-Encoding.
  Headers headers;
  Body body = Body::kPlain;
  uint64_t first = 0, length = 0;
  std::string text;
};

// Chooses the form (plain, compressed), evaluates conditions and Range, and adds the headers that
// every answer has; what the response itself names among them stays.
Answer DecideAnswer(const Request& request, const Response& response, const Options& options);

// The server's own refusal of a request, before any handler sees it: a broken target, another host,
// a method that nobody has. Nothing for a good one. `text_ok`: the request line was well-formed.
std::optional<Response> Refusal(const Request& request, bool text_ok, const Options& options);

}  // namespace tarnbackend::http
