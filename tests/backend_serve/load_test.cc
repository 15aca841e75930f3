// Many clients, slow ones, and those that go: everybody else is served, and nothing leaks.
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>

#include <filesystem>
#include <functional>
#include <memory>
#include <thread>
#include <vector>

#include "machine.h"
#include "served.h"
#include "tests/support/process.h"

namespace {

using tarn_test::DescriptorsOf;
using tarn_test::LibraryOf;
using tarn_test::NoTranscoderRuns;
using tarn_test::RawClient;
using tarn_test::Reply;
using tarn_test::Served;

constexpr char kCopied[] = "\"kind\": \"hls\", \"profile\": \"hls_remux_aac_ab128\"";
constexpr char kEncoded[] = "\"kind\": \"hls\", \"profile\": \"hls_hd720_x264_vb1500_aac_ab128\"";

std::string Request(const Served& server, const std::string& title, const std::string& more) {
  return "{\"video\": " + std::to_string(server.Video(title)) + ", " + more + "}";
}

// That the state of a stream is being asked for is one of its requests.
bool IsUsedByNobody(const Served& server, const Json::Value& stream) {
  const std::string path = "/api/v1/streams/" + stream["id"].asString();
  return server.Get(path).Json()["requests"].asInt() == 1;
}

// Names the network that a process is in.
std::string NetworkOf(pid_t process) {
  std::error_code error;
  return std::filesystem::read_symlink("/proc/" + std::to_string(process) + "/ns/net", error);
}

std::string Metric(const Served& server, const std::string& name) {
  const std::string text = "\n" + server.Get("/metrics").body;
  const size_t at = text.find("\n" + name + " ");
  if (at == std::string::npos) return "";
  const size_t begin = at + name.size() + 2;
  return text.substr(begin, text.find('\n', begin) - begin);
}

// Reads all of them at once; the answers in their order.
std::vector<Reply> ReadAll(const std::vector<std::unique_ptr<RawClient>>& clients) {
  std::vector<std::string> texts(clients.size());
  std::vector<pollfd> waiting;
  for (const auto& client : clients) waiting.push_back({client->fd(), POLLIN, 0});
  for (size_t open = clients.size(); open > 0;) {
    if (poll(waiting.data(), waiting.size(), 60'000) <= 0) break;
    for (size_t i = 0; i < waiting.size(); ++i) {
      if (waiting[i].revents == 0) continue;
      char buffer[65536];
      const ssize_t count = recv(waiting[i].fd, buffer, sizeof buffer, MSG_DONTWAIT);
      if (count > 0) {
        texts[i].append(buffer, static_cast<size_t>(count));
      } else {
        waiting[i].fd = -1;
        --open;
      }
    }
  }
  std::vector<Reply> replies;
  for (const std::string& text : texts) replies.push_back(tarn_test::ParseReply(text));
  return replies;
}

TEST(ServedLoad, TwoHundredClientsGetTheSameSegmentWhole) {
  const Served server(LibraryOf({"clip.mkv"}));
  const Json::Value stream = server.Open(Request(server, "clip", kCopied));
  const std::string path = stream["url"].asString() + "&fragment_id=00000";
  const std::string segment = server.Get(path).body;
  ASSERT_GT(segment.size(), 10'000u);
  const size_t descriptors = DescriptorsOf(server.pid());
  for (int round = 0; round < 2; ++round) {
    std::vector<std::unique_ptr<RawClient>> clients;
    for (int i = 0; i < 200; ++i) clients.push_back(std::make_unique<RawClient>(server));
    for (const auto& client : clients) client->Get(path);
    int whole = 0;
    for (const Reply& reply : ReadAll(clients)) {
      whole += reply.status == 200 && reply.body == segment ? 1 : 0;
    }
    EXPECT_EQ(whole, 200);
  }
  EXPECT_TRUE(test::Eventually([&] { return DescriptorsOf(server.pid()) <= descriptors; }))
      << DescriptorsOf(server.pid()) << " descriptors, before " << descriptors;
}

TEST(ServedLoad, ASlowClientKeepsNobodyWaitingAndGetsEverything) {
  const std::string folder = LibraryOf({"clip.mp4"});
  const Served server(folder);
  const std::string path = "/api/v1/videos/" + std::to_string(server.Video("clip")) + "/file";
  const std::string whole = server.Get(path).body;
  RawClient slow(server, 4096);
  slow.Get(path);
  std::string text;
  for (int i = 0; i < 50; ++i) {
    text += slow.Read(100);
    EXPECT_EQ(server.Get(path, {"-r", "0-99"}).status, 206);
  }
  EXPECT_EQ(text.size(), 5000u);
  text += slow.Read(SIZE_MAX);
  EXPECT_EQ(tarn_test::ParseReply(text).body, whole);
}

TEST(ServedLoad, ClientsThatGoLeaveNothing) {
  const Served server(LibraryOf({"film.avi", "clip.mp4"}));
  const std::string file = "/api/v1/videos/" + std::to_string(server.Video("clip")) + "/file";
  const Json::Value hls = server.Open(Request(server, "film", kEncoded));
  const std::string fragment = hls["url"].asString() + "&fragment_id=";
  const Json::Value webm = server.Open(Request(server, "film", "\"kind\": \"webm\""));
  ASSERT_TRUE(test::Eventually([&] {
    const Json::Value videos = server.Get("/api/v1/videos").Json()["videos"];
    return videos[0]["verdict"].isString() && videos[1]["verdict"].isString();
  }));
  const size_t descriptors = DescriptorsOf(server.pid());
  for (int i = 0; i < 20; ++i) {
    const bool reset = i % 2 == 0;
    RawClient head(server), in_file(server, 4096), post(server), waiting(server), bytes(server);
    head.Send("GET / HTTP/1.1\r\nHost: loc");
    post.Send("POST /api/v1/streams HTTP/1.1\r\nHost: localhost\r\nContent-Length: 99\r\n\r\n{");
    in_file.Get(file);
    EXPECT_NE(in_file.Read(1000), "");
    waiting.Get(fragment + "0000" + std::to_string(i % 6));
    // Each run ends the one before: some clients go before theirs has begun.
    bytes.Get(webm["url"].asString() + "&start=" + std::to_string(i));
    if (!reset) continue;
    for (RawClient* client : {&head, &in_file, &post, &waiting, &bytes}) client->Drop();
  }
  for (const Json::Value& stream : {hls, webm}) {
    const std::string path = "/api/v1/streams/" + stream["id"].asString();
    EXPECT_TRUE(test::Eventually([&] { return IsUsedByNobody(server, stream); }))
        << server.Get(path).body;
    EXPECT_EQ(server.Get(path, {"-X", "DELETE"}).status, 204);
  }
  EXPECT_TRUE(test::Eventually(NoTranscoderRuns));
  EXPECT_TRUE(test::Eventually([&] { return DescriptorsOf(server.pid()) <= descriptors; }))
      << DescriptorsOf(server.pid()) << " descriptors, before " << descriptors;
}

TEST(ServedLoad, NobodyWaitsForAFragmentWhoseClientHasGone) {
  const Served server(LibraryOf({"film.avi"}));
  const Json::Value stream = server.Open(Request(server, "film", kEncoded));
  // A transcoder that stands still: only its client's going can end the wait.
  std::vector<int> stopped;
  {
    RawClient client(server);
    client.Get(stream["url"].asString() + "&fragment_id=00000");
    ASSERT_TRUE(test::Eventually([&] {
      stopped = tarn_test::ProcessesWith("/usr/bin/ffmpeg");
      return !stopped.empty();
    }));
    for (const int process : stopped) {
      kill(process, SIGSTOP);
      EXPECT_NE(NetworkOf(process), NetworkOf(server.pid()));
    }
  }
  EXPECT_TRUE(test::Eventually([&] {
    return Metric(server, "tarnvte_workers{state=\"busy\"}") == "0";
  })) << server.Get("/metrics").body;
  EXPECT_TRUE(IsUsedByNobody(server, stream));
  for (const int process : stopped) kill(process, SIGCONT);
}

TEST(ServedLoad, ClientsThatSeekAgainstEachOtherAllGetOn) {
  const Served server(LibraryOf({"film.avi"}));
  const Json::Value first = server.Open(Request(server, "film", kCopied));
  const Json::Value second = server.Open(Request(server, "film", kCopied));
  EXPECT_NE(first["id"], second["id"]);
  const auto play = [&](const Json::Value& stream, int from, int& good) {
    for (int n = from; n < from + 2; ++n) {
      const std::string path = stream["url"].asString() + "&fragment_id=0000" + std::to_string(n);
      // What another's seek replaced is asked for again, as players do.
      for (int attempt = 0; attempt < 20; ++attempt) {
        RawClient client(server);
        client.Get(path);
        const Reply reply = client.ReadReply();
        if (reply.status == 503) continue;
        good += reply.status == 200 && reply.body.size() > 1000 ? 1 : 0;
        break;
      }
    }
  };
  int good[3] = {};
  std::thread here(play, first, 0, std::ref(good[0]));
  std::thread there(play, first, 2, std::ref(good[1]));
  std::thread beside(play, second, 1, std::ref(good[2]));
  here.join();
  there.join();
  beside.join();
  EXPECT_EQ(good[0], 2);
  EXPECT_EQ(good[1], 2);
  EXPECT_EQ(good[2], 2);
}

}  // namespace
