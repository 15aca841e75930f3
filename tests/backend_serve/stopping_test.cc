// A server that is told to end, whatever it is doing: it ends soon, and nothing stays behind.
#include <gtest/gtest.h>
#include <signal.h>

#include <memory>
#include <vector>

#include "machine.h"
#include "served.h"
#include "tests/support/process.h"

namespace {

using tarn_test::LibraryOf;
using tarn_test::NoStreamIsLeft;
using tarn_test::NoTranscoderRuns;
using tarn_test::ProcessesWith;
using tarn_test::RawClient;
using tarn_test::Reply;
using tarn_test::Served;

constexpr char kHls[] = "\"kind\": \"hls\", \"profile\": \"hls_hd720_x264_vb1500_aac_ab128\"";

std::string Request(const Served& server, const std::string& more) {
  return "{\"video\": " + std::to_string(server.Video("film")) + ", " + more + "}";
}

void Post(RawClient& client, const std::string& body) {
  client.Send("POST /api/v1/streams HTTP/1.1\r\nHost: localhost\r\nContent-Length: " +
              std::to_string(body.size()) + "\r\n\r\n" + body);
}

void ExpectNoProcesses() {
  EXPECT_TRUE(test::Eventually(NoTranscoderRuns));
  EXPECT_TRUE(ProcessesWith("serve-worker").empty());
}

// The end of a server that was told so.
void ExpectCleanEnd(Served& server) {
  EXPECT_EQ(server.Wait(), 0) << server.Log();
  ExpectNoProcesses();
  EXPECT_TRUE(NoStreamIsLeft()) << server.Log();
}

bool IsProbed(const Served& server) {
  return test::Eventually(
      [&] { return server.Get("/api/v1/videos").Json()["videos"][0]["verdict"].isString(); });
}

TEST(ServedStopping, WhileAStreamIsPrepared) {
  const std::string folder = LibraryOf({"film.avi"});
  Served server(folder);
  ASSERT_TRUE(IsProbed(server));
  const std::string request = Request(server, kHls);
  RawClient client(server);
  Post(client, request);
  server.Signal(SIGTERM);
  ExpectCleanEnd(server);
  const Reply reply = client.ReadReply();
  // The signal and the request may come in either order.
  EXPECT_TRUE(reply.status == 0 || reply.Json()["error"] == "stopping") << reply.body;
}

TEST(ServedStopping, TwiceWhileStreamsArePrepared) {
  Served server(LibraryOf({"film.avi"}));
  ASSERT_TRUE(IsProbed(server));
  const std::string request = Request(server, kHls);
  std::vector<std::unique_ptr<RawClient>> clients;
  for (int i = 0; i < 4; ++i) {
    clients.push_back(std::make_unique<RawClient>(server));
    Post(*clients.back(), request);
  }
  EXPECT_TRUE(test::Eventually([] { return !NoStreamIsLeft(); })) << "one is being prepared";
  server.Signal(SIGTERM);
  server.Signal(SIGINT);
  EXPECT_EQ(server.Wait(), 0) << server.Log();
  ExpectNoProcesses();
}

TEST(ServedStopping, WhileAFragmentIsWaitedFor) {
  Served server(LibraryOf({"film.avi"}));
  const Json::Value stream = server.Open(Request(server, kHls));
  RawClient client(server);
  client.Get(stream["url"].asString() + "&fragment_id=00004");
  ASSERT_TRUE(test::Eventually([] { return !NoTranscoderRuns(); }));
  server.Signal(SIGTERM);
  ExpectCleanEnd(server);
  const int status = client.ReadReply().status;
  EXPECT_TRUE(status == 410 || status == 200) << status;
}

TEST(ServedStopping, WhileAByteStreamRunsAndHangUpsRain) {
  Served server(LibraryOf({"film.avi"}));
  const Json::Value stream = server.Open(Request(server, "\"kind\": \"webm\""));
  RawClient client(server, 4096);
  client.Get(stream["url"].asString());
  ASSERT_NE(client.Read(1), "");
  for (int i = 0; i < 200; ++i) server.Signal(SIGHUP);
  EXPECT_TRUE(test::Eventually(
      [&] { return server.Get("/api/v1/health").Json()["library"]["scanning"] == false; }));
  server.Signal(SIGHUP);
  server.Signal(SIGTERM);
  server.Signal(SIGHUP);
  ExpectCleanEnd(server);
}

}  // namespace
