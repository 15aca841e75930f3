#include "backend/http/host_name.h"

#include <gtest/gtest.h>

namespace tarnbackend::http {
namespace {

TEST(HostName, LosesPortAndCase) {
  EXPECT_EQ(HostName("LocalHost:8080"), "localhost");
  EXPECT_EQ(HostName("localhost"), "localhost");
  EXPECT_EQ(HostName("127.0.0.1:1"), "127.0.0.1");
  EXPECT_EQ(HostName("localhost:"), "localhost");
  EXPECT_EQ(HostName(" a "), "a");
}

TEST(HostName, LosesBrackets) {
  EXPECT_EQ(HostName("[::1]:8080"), "::1");
  EXPECT_EQ(HostName("[::1]"), "::1");
}

TEST(HostName, NoHost) {
  for (const char* host : {"", ":80", "a:b", "a:80:80", "::1", "[::1", "[::1]x", "[]"}) {
    EXPECT_EQ(HostName(host), "") << host;
  }
}

TEST(HostName, OneOfTheNames) {
  const std::vector<std::string> names = {"localhost", "127.0.0.1", "[::1]", "Box.local"};
  for (const char* host : {"localhost:8200", "LOCALHOST", "127.0.0.1", "[::1]:8200", "box.local"}) {
    EXPECT_TRUE(HostAllowed(host, names)) << host;
  }
  for (const char* host : {"evil.example", "localhost.evil.example", "", "localhost.", "[::2]",
                           "127.0.0.1.evil.example:8200", "evil.example@localhost"}) {
    EXPECT_FALSE(HostAllowed(host, names)) << host;
  }
  EXPECT_TRUE(HostAllowed("[::1]", {"::1"}));
}

TEST(HostName, AnyWithoutNames) {
  EXPECT_TRUE(HostAllowed("evil.example", {}));
  EXPECT_TRUE(HostAllowed("", {}));
}

}  // namespace
}  // namespace tarnbackend::http
