#include "web_client.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <sys/epoll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>

#include "backend/http/text.h"

namespace test {
namespace {

// Undoes chunks; false when the last one is missing.
bool TakeChunks(std::string& rest, std::string& body) {
  size_t at = 0;
  while (true) {
    const size_t line = rest.find("\r\n", at);
    if (line == std::string::npos) return false;
    const size_t size = std::strtoul(rest.c_str() + at, nullptr, 16);
    if (rest.size() < line + 2 + size + 2) return false;
    body.append(rest, line + 2, size);
    at = line + 2 + size + 2;
    if (size == 0) break;
  }
  rest.erase(0, at);
  return true;
}

}  // namespace

std::string Reply::Header(const std::string& name) const {
  const auto found = std::find_if(headers.begin(), headers.end(),
                                  [&name](const auto& header) { return header.first == name; });
  return found == headers.end() ? "" : found->second;
}

bool TakeReply(std::string& received, Reply& reply, bool head) {
  const size_t end = received.find("\r\n\r\n");
  if (end == std::string::npos) return false;
  reply = {};
  reply.status = std::atoi(received.c_str() + sizeof "HTTP/1.1");
  for (size_t at = received.find("\r\n"); at < end;) {
    const size_t next = received.find("\r\n", at + 2);
    const std::string line = received.substr(at + 2, next - at - 2);
    const size_t colon = line.find(": ");
    reply.headers.emplace_back(tarnbackend::http::Lower(line.substr(0, colon)),
                               line.substr(colon + 2));
    at = next;
  }
  std::string rest = received.substr(end + 4);
  const bool bodiless = head || reply.status == 204 || reply.status == 304;
  if (!bodiless && reply.Header("transfer-encoding") == "chunked") {
    if (!TakeChunks(rest, reply.body)) return false;
  } else if (!bodiless) {
    const size_t size = std::strtoul(reply.Header("content-length").c_str(), nullptr, 10);
    if (rest.size() < size) return false;
    reply.body = rest.substr(0, size);
    rest.erase(0, size);
  }
  received = rest;
  return true;
}

WebClient::WebClient(EventLoop& loop, const std::string& address, int receive_buffer)
    : loop_(loop), fd_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
  if (receive_buffer > 0) {
    setsockopt(fd_.get(), SOL_SOCKET, SO_RCVBUF, &receive_buffer, sizeof receive_buffer);
  }
  sockaddr_in server{};
  server.sin_family = AF_INET;
  server.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  server.sin_port =
      htons(static_cast<uint16_t>(std::atoi(address.substr(address.rfind(':') + 1).c_str())));
  // The kernel connects without the server.
  if (connect(fd_.get(), reinterpret_cast<sockaddr*>(&server), sizeof server) != 0) {
    ended = true;
    return;
  }
  fcntl(fd_.get(), F_SETFL, O_NONBLOCK);
  Watch(true);
}

void WebClient::Send(const std::string& text) {
  unsent_ += text;
  // At once: no server can take the connection for an idle one.
  SendMore();
  if (!ended) Watch(reading_);
}

void WebClient::SendMore() {
  const ssize_t sent = send(fd_.get(), unsent_.data(), unsent_.size(), MSG_NOSIGNAL);
  if (sent > 0) unsent_.erase(0, static_cast<size_t>(sent));
  if (sent < 0 && errno != EAGAIN) unsent_.clear();
}

void WebClient::Get(const std::string& target, const std::string& headers) {
  Send("GET " + target + " HTTP/1.1\r\nHost: localhost\r\n" + headers + "\r\n");
}

void WebClient::Reset() {
  const linger at_once{1, 0};
  setsockopt(fd_.get(), SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
  Close();
}

void WebClient::Close() {
  if (fd_.valid()) loop_.Unwatch(fd_.get());
  fd_.reset();
}

void WebClient::Watch(bool reading) {
  reading_ = reading;
  const uint32_t events =
      (reading ? uint32_t{EPOLLIN} : 0) | (unsent_.empty() ? 0 : uint32_t{EPOLLOUT});
  loop_.Watch(fd_.get(), events, [this](uint32_t happened) { Ready(happened); });
}

void WebClient::Ready(uint32_t events) {
  if ((events & EPOLLOUT) != 0) {
    SendMore();
    Watch(reading_);
  }
  if ((events & (EPOLLIN | EPOLLHUP | EPOLLERR)) == 0) return;
  char buffer[64 * 1024];
  const ssize_t got = recv(fd_.get(), buffer, sizeof buffer, 0);
  if (got > 0) received.append(buffer, static_cast<size_t>(got));
  if (got > 0 || (got < 0 && errno == EAGAIN)) return;
  ended = true;
  loop_.Unwatch(fd_.get());
}

}  // namespace test
