#include <fcntl.h>
#include <sched.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cstdio>
#include <cstring>
#include <stdexcept>

#include "web_test.h"

namespace test {
namespace {

using tarnbackend::http::Listen;
using tarnbackend::http::LocalAddress;

TEST(Listen, TakesAFreePort) {
  const UniqueFd fd = Listen("127.0.0.1:0");
  const std::string address = LocalAddress(fd.get());
  EXPECT_EQ(address.rfind("127.0.0.1:", 0), 0u);
  EXPECT_NE(address, "127.0.0.1:0");
  EXPECT_EQ(fcntl(fd.get(), F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
}

TEST(Listen, OnTheNewerProtocol) {
  const UniqueFd fd = Listen("[::1]:0");
  EXPECT_EQ(LocalAddress(fd.get()).rfind("[::1]:", 0), 0u);
}

TEST(Listen, SaysWhatIsWrong) {
  const auto complaint = [](const std::string& address) -> std::string {
    try {
      Listen(address);
    } catch (const std::runtime_error& error) {
      return error.what();
    }
    return "none";
  };
  const UniqueFd taken = Listen("127.0.0.1:0");
  const std::string address = LocalAddress(taken.get());
  EXPECT_EQ(complaint(address), "cannot listen on " + address + ": Address already in use");
  const std::string written = ": an address is written as 127.0.0.1:8080 or [::1]:8080";
  for (const std::string bad : {"", "8080", "127.0.0.1", "127.0.0.1:", ":8080", "127.0.0.1:http",
                                "127.0.0.1:65536", "127.0.0.1:99999999999", "127.0.0.1:-1"}) {
    EXPECT_EQ(complaint(bad), "cannot listen on " + bad + written);
  }
  EXPECT_EQ(complaint("::1:8080"), "cannot listen on ::1:8080: an IPv6 address stands in brackets");
  EXPECT_NE(complaint("192.0.2.1:8080"), "none");
}

TEST(Listen, NoAddressOfWhatIsNoSocket) { EXPECT_EQ(LocalAddress(-1), ""); }

TEST_F(WebTest, ServesASocketOfTheMachineItself) {
  UniqueFd listening(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strcpy(address.sun_path, "/tmp/web-socket");
  const auto* bare = reinterpret_cast<const sockaddr*>(&address);
  ASSERT_EQ(bind(listening.get(), bare, sizeof address), 0);
  ASSERT_EQ(listen(listening.get(), 5), 0);
  std::string client = "unset";
  tarnbackend::http::Server server(loop(), std::move(listening), {}, [&](const auto& exchange) {
    client = exchange->request().client;
    exchange->Reply(Text("text"));
  });
  const UniqueFd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  ASSERT_EQ(connect(fd.get(), bare, sizeof address), 0);
  const std::string request = "GET / HTTP/1.1\r\nHost: a\r\n\r\n";
  ASSERT_EQ(write(fd.get(), request.data(), request.size()), static_cast<ssize_t>(request.size()));
  std::string received;
  Reply reply;
  EXPECT_TRUE(Run([&] {
    char buffer[1024];
    const ssize_t got = read(fd.get(), buffer, sizeof buffer);
    if (got > 0) received.append(buffer, static_cast<size_t>(got));
    return TakeReply(received, reply);
  }));
  EXPECT_EQ(reply.body, "text");
  EXPECT_EQ(client, "");
  std::remove("/tmp/web-socket");
}

TEST_F(WebTest, ServesASocketOfAnotherNetwork) {
  UniqueFd listening = Listen("127.0.0.1:0");
  WebClient client(loop(), LocalAddress(listening.get()));
  const UniqueFd network(open("/proc/self/ns/net", O_RDONLY | O_CLOEXEC));
  ASSERT_EQ(unshare(CLONE_NEWNET), 0);
  {
    std::string address;
    tarnbackend::http::Server server(loop(), std::move(listening), {}, [&](const auto& exchange) {
      address = exchange->request().client;
      exchange->Reply(Text("text"));
    });
    client.Get("/");
    EXPECT_EQ(Await(client).body, "text");
    EXPECT_EQ(address, "127.0.0.1");
  }
  EXPECT_EQ(setns(network.get(), CLONE_NEWNET), 0);
}

TEST_F(WebTest, NeedsASocket) {
  EXPECT_THROW(tarnbackend::http::Server(loop(), UniqueFd(), {}, [](const auto&) {}),
               std::runtime_error);
}

}  // namespace
}  // namespace test
