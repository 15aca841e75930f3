#include <fcntl.h>
#include <sys/socket.h>

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

TEST_F(WebTest, NeedsASocket) {
  EXPECT_THROW(tarnbackend::http::Server(loop(), UniqueFd(), {}, [](const auto&) {}),
               std::runtime_error);
}

}  // namespace
}  // namespace test
