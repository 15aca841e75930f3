#include <cstdio>

#include "backend/http/server.h"

namespace tarnbackend::http {
namespace {

std::string JsonString(const std::string& text) {
  std::string quoted = "\"";
  for (const char c : text) {
    if (c == '"' || c == '\\') {
      quoted += '\\';
      quoted += c;
    } else if (static_cast<unsigned char>(c) < 0x20) {
      char escape[8];
      std::snprintf(escape, sizeof escape, "\\u%04x", static_cast<unsigned>(c));
      quoted += escape;
    } else {
      quoted += c;
    }
  }
  return quoted + '"';
}

}  // namespace

Response ErrorResponse(int status, const std::string& word, const std::string& message) {
  Response response;
  response.status = status;
  response.type = "application/json";
  response.body =
      "{\"error\": " + JsonString(word) + ", \"message\": " + JsonString(message) + "}\n";
  return response;
}

}  // namespace tarnbackend::http
