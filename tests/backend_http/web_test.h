// What the tests of the server share: it, its clients, and what its handler got.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "backend/http/server.h"
#include "web_client.h"

namespace test {

using tarnbackend::http::Exchange;
using tarnbackend::http::FileBody;
using tarnbackend::http::Options;
using tarnbackend::http::PipeBody;
using tarnbackend::http::Request;
using tarnbackend::http::Response;

inline size_t CountDescriptors() {
  return static_cast<size_t>(
      std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {}));
}

inline Response Text(std::string text) {
  Response response;
  response.type = "text/plain";
  response.body = std::move(text);
  return response;
}

class WebTest : public ::testing::Test {
 protected:
  struct Finished {
    std::string target;
    int status;
    uint64_t bytes;
  };

  // Every descriptor that a test has opened is closed with the server.
  void SetUp() override { descriptors_ = CountDescriptors(); }
  void TearDown() override {
    clients_.clear();
    held_.clear();
    routes_.clear();
    server_.reset();
    loop_.reset();
    EXPECT_EQ(CountDescriptors(), descriptors_);
  }

  EventLoop& loop() {
    if (loop_ == nullptr) loop_ = std::make_unique<EventLoop>();
    return *loop_;
  }

  // Paths that no route has are held, for a test to answer.
  void Serve(Options options = {}) {
    options.finished = [this](const Request& request, int status, uint64_t bytes) {
      finished_.push_back({request.target, status, bytes});
    };
    UniqueFd listening = tarnbackend::http::Listen("127.0.0.1:0");
    address_ = tarnbackend::http::LocalAddress(listening.get());
    server_ = std::make_unique<tarnbackend::http::Server>(
        loop(), std::move(listening), std::move(options),
        [this](std::shared_ptr<Exchange> exchange) {
          const auto route = routes_.find(exchange->request().path);
          if (route != routes_.end()) {
            route->second(exchange);
          } else {
            held_[exchange->request().path] = exchange;
          }
        });
  }
  void Route(const std::string& path, std::function<void(std::shared_ptr<Exchange>)> handler) {
    routes_[path] = std::move(handler);
  }
  void RouteText(const std::string& path, const std::string& text) {
    Route(path, [text](const auto& exchange) { exchange->Reply(Text(text)); });
  }

  WebClient& Connect(int receive_buffer = 0) {
    clients_.push_back(std::make_unique<WebClient>(loop(), address_, receive_buffer));
    return *clients_.back();
  }
  template <typename Condition>
  bool Run(Condition condition) {
    return RunUntil(loop(), condition);
  }
  // The next reply; status 0 when none comes.
  Reply Await(WebClient& client, bool head = false) {
    Reply reply;
    const bool whole = Run([&] { return TakeReply(client.received, reply, head); });
    return whole ? reply : Reply{};
  }
  // On a connection of its own.
  Reply Fetch(const std::string& target, const std::string& headers = "") {
    WebClient client(loop(), address_);
    client.Get(target, headers);
    return Await(client);
  }
  Reply FetchText(const std::string& request, bool head = false) {
    WebClient client(loop(), address_);
    client.Send(request);
    return Await(client, head);
  }
  bool IsHeld(const std::string& path) {
    return Run([&] { return held_.count(path) == 1; });
  }
  // Each connection that there was is closed on the server's side too.
  bool AllGone() {
    return Run([&] { return server_->counters().connections == 0; });
  }

  std::unique_ptr<EventLoop> loop_;
  std::unique_ptr<tarnbackend::http::Server> server_;
  std::string address_;
  std::map<std::string, std::function<void(std::shared_ptr<Exchange>)>> routes_;
  std::map<std::string, std::shared_ptr<Exchange>> held_;
  std::vector<std::unique_ptr<WebClient>> clients_;
  std::vector<Finished> finished_;
  size_t descriptors_ = 0;
};

}  // namespace test
