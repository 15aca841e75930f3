// Who may use the server. Pure.
#pragma once

#include <string>
#include <string_view>

#include "backend/http/server.h"

namespace tarnbackend {

// The address of a listening socket, "127.0.0.1:80" or "[::1]:80", is this machine's own.
bool IsLoopback(std::string_view address);

// 128 random bits in hexadecimal. Throws std::system_error when the kernel has none.
std::string NewToken();

// How a request proves that it knows the token.
enum class Proof { kNone, kHeader, kCookie, kQuery };
// kNone also for a wrong token. The comparison takes the same time wherever the texts differ.
Proof FindProof(const http::Request& request, const std::string& token);

// A request that may change something and was made by another site's page, which its browser says
// in Origin or Sec-Fetch-Site. `trusted` is a site whose pages may; empty: none.
bool IsForeignPage(const http::Request& request, const std::string& trusted);

// The cookie that keeps the token in a browser.
std::string TokenCookie(const std::string& token);

}  // namespace tarnbackend
