#include "backend/serve/access.h"

#include <sys/random.h>

#include <array>
#include <cerrno>
#include <system_error>

#include "backend/serve/playback_address.h"

namespace tarnbackend {
namespace {

constexpr char kCookie[] = "tarnvte_token";

bool Same(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  unsigned char difference = 0;
  for (size_t i = 0; i < a.size(); ++i) difference |= static_cast<unsigned char>(a[i] ^ b[i]);
  return difference == 0;
}

}  // namespace

bool IsLoopback(std::string_view address) {
  return address.starts_with("127.") || address.starts_with("[::1]:");
}

std::string NewToken() {
  std::array<unsigned char, 16> bits{};
  if (getrandom(bits.data(), bits.size(), 0) != static_cast<ssize_t>(bits.size())) {
    throw std::system_error(errno, std::generic_category(), "getrandom");
  }
  std::string token;
  for (const unsigned char byte : bits) {
    constexpr char kDigits[] = "0123456789abcdef";
    token += {kDigits[byte >> 4], kDigits[byte & 15]};
  }
  return token;
}

Proof FindProof(const http::Request& request, const std::string& token) {
  constexpr std::string_view kScheme = "Bearer ";
  const std::string header = request.Header("authorization");
  if (header.starts_with(kScheme) && Same(header.substr(kScheme.size()), token)) {
    return Proof::kHeader;
  }
  if (Same(request.Cookie(kCookie), token)) return Proof::kCookie;
  return Same(UnquotedQuery(request, "token"), token) ? Proof::kQuery : Proof::kNone;
}

bool IsForeignPage(const http::Request& request, const std::string& trusted) {
  if (request.method == "GET" || request.method == "HEAD") return false;
  const std::string origin = request.Header("origin");
  if (!origin.empty() && origin == trusted) return false;
  const std::string site = request.Header("sec-fetch-site");
  if (!site.empty() && site != "same-origin" && site != "none") return true;
  return !origin.empty() && origin != "http://" + request.Header("host") &&
         origin != "https://" + request.Header("host");
}

std::string TokenCookie(const std::string& token) {
  return std::string(kCookie) + "=" + token + "; Path=/; HttpOnly; SameSite=Strict";
}

}  // namespace tarnbackend
