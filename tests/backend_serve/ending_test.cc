// How streams, requests, workers and the server end, and that nothing stays behind.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>

#include "machine.h"
#include "served.h"
#include "tests/support/process.h"

namespace {

using tarn_test::LibraryOf;
using tarn_test::NoStreamIsLeft;
using tarn_test::NoTranscoderRuns;
using tarn_test::ProcessesWith;
using tarn_test::Served;

std::string Request(const Served& server, const std::string& more) {
  return "{\"video\": " + std::to_string(server.Video("film")) + ", " + more + "}";
}

constexpr char kHls[] = "\"kind\": \"hls\", \"profile\": \"hls_hd720_x264_vb1500_aac_ab128\"";

// A client in the background.
class Client {
 public:
  explicit Client(const std::string& url, const std::string& rate = "1G") {
    pid_ = fork();
    if (pid_ != 0) return;
    execlp("curl", "curl", "-s", "-g", "-o", "/dev/null", "--limit-rate", rate.c_str(), url.c_str(),
           nullptr);
    _exit(127);
  }
  ~Client() { End(); }
  void End() {
    if (pid_ <= 0) return;
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
    pid_ = -1;
  }
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;

 private:
  pid_t pid_ = -1;
};

TEST(ServedEnding, AClosedStreamsTranscoderEnds) {
  const Served server(LibraryOf({"film.avi"}));
  const Json::Value stream = server.Open(Request(server, kHls));
  EXPECT_EQ(server.Get(stream["url"].asString() + "&fragment_id=00000").status, 200);
  EXPECT_EQ(
      server.Get("/api/v1/streams/" + stream["id"].asString() + "/close", {"-X", "POST"}).status,
      204);
  EXPECT_TRUE(test::Eventually(NoTranscoderRuns));
  EXPECT_TRUE(test::Eventually(NoStreamIsLeft));
}

TEST(ServedEnding, AReaderThatGoesEndsItsTranscoder) {
  const Served server(LibraryOf({"film.avi"}));
  const Json::Value stream = server.Open(Request(server, "\"kind\": \"webm\""));
  {
    const Client client(server.address() + stream["url"].asString(), "20k");
    EXPECT_TRUE(test::Eventually([] { return !NoTranscoderRuns(); }));
  }
  EXPECT_TRUE(test::Eventually(NoTranscoderRuns));
  EXPECT_EQ(server.Get("/api/v1/streams/" + stream["id"].asString()).status, 200)
      << "the stream can be asked for again";
}

TEST(ServedEnding, ASignalClosesEveryStream) {
  Served server(LibraryOf({"film.avi", "clip.mkv"}));
  // A copy: a machine may bear one encoder only.
  const Json::Value hls =
      server.Open("{\"kind\": \"hls\", \"profile\": \"hls_remux_aac_ab128\", \"video\": " +
                  std::to_string(server.Video("clip")) + "}");
  EXPECT_EQ(server.Get(hls["url"].asString() + "&fragment_id=00000").status, 200);
  const Json::Value webm = server.Open(Request(server, "\"kind\": \"webm\""));
  const Client client(server.address() + webm["url"].asString(), "20k");
  EXPECT_TRUE(test::Eventually([&] {
    return server.Get("/api/v1/streams/" + webm["id"].asString()).Json()["requests"].asInt() > 1;
  }));
  server.Signal(SIGTERM);
  EXPECT_EQ(server.Wait(), 0) << server.Log();
  EXPECT_TRUE(NoTranscoderRuns());
  EXPECT_TRUE(NoStreamIsLeft());
  EXPECT_TRUE(ProcessesWith("serve-worker").empty());
}

TEST(ServedEnding, AServerThatIsKilledLeavesNothingForLong) {
  const std::string folder = LibraryOf({"film.avi"});
  {
    Served server(folder);
    const Json::Value stream = server.Open(Request(server, kHls));
    EXPECT_EQ(server.Get(stream["url"].asString() + "&fragment_id=00000").status, 200);
    server.Signal(SIGKILL);
    EXPECT_EQ(server.Wait(), 128 + SIGKILL);
  }
  EXPECT_TRUE(test::Eventually([] { return ProcessesWith("serve-worker").empty(); }));
  EXPECT_FALSE(NoStreamIsLeft());
  const Served next(folder);
  EXPECT_TRUE(test::Eventually(NoStreamIsLeft)) << next.Log();
  EXPECT_TRUE(test::Eventually(NoTranscoderRuns));
}

TEST(ServedEnding, AWorkerThatIsKilledCostsNoMoreThanItsRequest) {
  const Served server(LibraryOf({"film.avi"}));
  const Json::Value stream = server.Open(Request(server, kHls));
  const std::string url = stream["url"].asString() + "&fragment_id=";
  const std::string state = "/api/v1/streams/" + stream["id"].asString();
  const Client client(server.address() + url + "00005");
  // The question is a request of the stream, too.
  EXPECT_TRUE(test::Eventually([&] { return server.Get(state).Json()["requests"].asInt() > 1; }));
  EXPECT_TRUE(test::Eventually([&] {
    for (const int worker : ProcessesWith("serve-worker")) kill(worker, SIGKILL);
    return server.Get("/metrics").body.find("tarnvte_calls_failed_total{cause=\"lost\"} 0\n") ==
           std::string::npos;
  }));
  EXPECT_EQ(server.Get(url + "00001").status, 200);
  EXPECT_NE(server.Log().find("killed by signal 9"), std::string::npos) << server.Log();
}

}  // namespace
