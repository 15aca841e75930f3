#include "machine.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>

namespace tarn_test {

namespace fs = std::filesystem;

std::vector<int> ProcessesWith(const std::string& text) {
  std::vector<int> found;
  for (const auto& entry : fs::directory_iterator("/proc")) {
    const std::string name = entry.path().filename();
    if (name.find_first_not_of("0123456789") != std::string::npos) continue;
    std::ifstream file(entry.path() / "cmdline");
    std::ostringstream line;
    line << file.rdbuf();
    if (line.str().find(text) != std::string::npos) found.push_back(std::stoi(name));
  }
  return found;
}

bool NoTranscoderRuns() { return ProcessesWith("/usr/bin/ffmpeg").empty(); }

bool NoStreamIsLeft() {
  for (const char* kind : {"HLS", "SS", "WEBM", "HTTP"}) {
    std::error_code error;
    const fs::path folder = fs::path("/tmp/Reelbay") / kind;
    if (fs::exists(folder, error) && !fs::is_empty(folder, error)) return false;
  }
  return true;
}

size_t DescriptorsOf(pid_t process) {
  const fs::path folder = "/proc/" + std::to_string(process) + "/fd";
  return static_cast<size_t>(std::distance(fs::directory_iterator(folder), {}));
}

RawClient::RawClient(const Served& server, int receive_buffer)
    : fd_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
  if (receive_buffer > 0) {
    setsockopt(fd_.get(), SOL_SOCKET, SO_RCVBUF, &receive_buffer, sizeof receive_buffer);
  }
  const std::string& address = server.address();
  sockaddr_in to{};
  to.sin_family = AF_INET;
  to.sin_port = htons(static_cast<uint16_t>(std::stoi(address.substr(address.rfind(':') + 1))));
  to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  EXPECT_EQ(connect(fd_.get(), reinterpret_cast<sockaddr*>(&to), sizeof to), 0);
}

bool RawClient::Send(const std::string& text) {
  for (size_t sent = 0; sent < text.size();) {
    const ssize_t count = send(fd_.get(), text.data() + sent, text.size() - sent, MSG_NOSIGNAL);
    if (count <= 0) return false;
    sent += static_cast<size_t>(count);
  }
  return true;
}

void RawClient::Get(const std::string& path) {
  Send("GET " + path + " HTTP/1.1\r\nHost: localhost\r\nConnection: close\r\n\r\n");
}

std::string RawClient::Read(size_t bytes) {
  std::string text;
  while (text.size() < bytes) {
    char buffer[65536];
    const size_t room = std::min(bytes - text.size(), sizeof buffer);
    const ssize_t count = recv(fd_.get(), buffer, room, 0);
    if (count <= 0) break;
    text.append(buffer, static_cast<size_t>(count));
  }
  return text;
}

Reply RawClient::ReadReply() { return ParseReply(Read(SIZE_MAX)); }

void RawClient::Drop() {
  const linger reset{1, 0};
  setsockopt(fd_.get(), SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
  fd_.reset();
}

}  // namespace tarn_test
