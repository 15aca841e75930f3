#include "bench/served.h"

#include <arpa/inet.h>
#include <json/reader.h>
#include <json/writer.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cstdlib>
#include <memory>
#include <vector>

#include "base/wait.h"

namespace tarnbench {
namespace {

Words Command(const Words& words) {
  Words command = {TARN_BENCH_BUILD "/cli/tarnvte", "serve", "--listen", "127.0.0.1:0"};
  command.insert(command.end(), words.begin(), words.end());
  return command;
}

Json::Value Parse(const std::string& text) {
  const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
  Json::Value value;
  if (!reader->parse(text.data(), text.data() + text.size(), &value, nullptr)) {
    Fail("the server's answer is no JSON: " + text);
  }
  return value;
}

// The number behind a header's name; 0 where it is missing.
size_t NumberOf(const std::string& head, const std::string& name) {
  const size_t at = head.find("\r\n" + name + ": ");
  return at == std::string::npos ? 0
                                 : std::strtoul(head.c_str() + at + name.size() + 4, nullptr, 10);
}

}  // namespace

Served::Served(const Words& words) : program_(Command(words)) {
  const std::string address = program_.Listen();
  port_ = std::atoi(address.c_str() + address.rfind(':') + 1);
}

Client::Client(int port) : socket_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  const auto* generic = reinterpret_cast<const sockaddr*>(&address);
  if (connect(socket_.get(), generic, sizeof address) != 0) Fail("the server cannot be reached");
}

std::string Client::Ask(const std::string& request) {
  const int fd = socket_.get();
  if (send(fd, request.data(), request.size(), MSG_NOSIGNAL) !=
      static_cast<ssize_t>(request.size())) {
    Fail("the server takes no request");
  }
  std::string received;
  std::vector<char> buffer(256 * 1024);
  size_t head = std::string::npos;
  size_t length = 0;
  while (head == std::string::npos || received.size() < head + length) {
    const ssize_t count = recv(fd, buffer.data(), buffer.size(), 0);
    if (count <= 0) Fail("the server closed a connection");
    received.append(buffer.data(), static_cast<size_t>(count));
    const size_t end = received.find("\r\n\r\n");
    if (head != std::string::npos || end == std::string::npos) continue;
    head = end + 4;
    length = NumberOf(received.substr(0, head), "Content-Length");
  }
  if (!received.starts_with("HTTP/1.1 20")) Fail("the server refused: " + received);
  return received.substr(head);
}

std::string Client::Get(const std::string& path) {
  return Ask("GET " + path + " HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n");
}

Json::Value Client::GetJson(const std::string& path) { return Parse(Get(path)); }

Json::Value Client::Post(const std::string& path, const Json::Value& body) {
  const std::string text = Json::writeString(Json::StreamWriterBuilder(), body);
  return Parse(Ask("POST " + path +
                   " HTTP/1.1\r\nHost: 127.0.0.1\r\nContent-Type: application/json\r\n" +
                   "Content-Length: " + std::to_string(text.size()) + "\r\n\r\n" + text));
}

int VideoNumber(Client& client, const std::string& title) {
  constexpr int kTries = 600;
  constexpr int kLookMs = 100;
  for (int i = 0; i < kTries; ++i) {
    const Json::Value library = client.GetJson("/api/v1/videos");
    for (const Json::Value& video : library["videos"]) {
      if (video["title"].asString() == title && video.isMember("duration"))
        return video["id"].asInt();
    }
    tarn::SleepMs(kLookMs);
  }
  Fail("the server knows no video " + title);
}

}  // namespace tarnbench
