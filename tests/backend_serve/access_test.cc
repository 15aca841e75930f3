#include "backend/serve/access.h"

#include <gtest/gtest.h>

namespace tarnbackend {
namespace {

constexpr char kToken[] = "0123abcd";

http::Request Get(http::Headers headers) {
  http::Request request;
  request.method = "GET";
  request.path = "/";
  request.headers = std::move(headers);
  return request;
}

TEST(Access, LoopbackAddressesAreThisMachine) {
  EXPECT_TRUE(IsLoopback("127.0.0.1:8200"));
  EXPECT_TRUE(IsLoopback("127.9.9.9:1"));
  EXPECT_TRUE(IsLoopback("[::1]:8200"));
  EXPECT_FALSE(IsLoopback("0.0.0.0:8200"));
  EXPECT_FALSE(IsLoopback("[::]:8200"));
  EXPECT_FALSE(IsLoopback("192.168.1.27:8200"));
  EXPECT_FALSE(IsLoopback(""));
}

TEST(Access, TheTokenComesInThreeWays) {
  EXPECT_EQ(FindProof(Get({{"authorization", "Bearer 0123abcd"}}), kToken), Proof::kHeader);
  EXPECT_EQ(FindProof(Get({{"cookie", "a=b; tarnvte_token=0123abcd"}}), kToken), Proof::kCookie);
  http::Request request = Get({});
  request.query = {{"token", "0123abcd"}};
  EXPECT_EQ(FindProof(request, kToken), Proof::kQuery);
  request.query = {{"token", "\"0123abcd\""}};
  EXPECT_EQ(FindProof(request, kToken), Proof::kQuery);
}

TEST(Access, AWrongTokenIsNone) {
  for (const char* wrong : {"", "0123abc", "0123abcde", "1123abcd", "0123ABCD"}) {
    EXPECT_EQ(FindProof(Get({{"authorization", std::string("Bearer ") + wrong}}), kToken),
              Proof::kNone)
        << wrong;
    EXPECT_EQ(FindProof(Get({{"cookie", std::string("tarnvte_token=") + wrong}}), kToken),
              Proof::kNone)
        << wrong;
  }
  EXPECT_EQ(FindProof(Get({{"authorization", "Basic 0123abcd"}}), kToken), Proof::kNone);
}

TEST(Access, NewTokensDiffer) {
  const std::string token = NewToken();
  EXPECT_EQ(token.size(), 32u);
  EXPECT_EQ(token.find_first_not_of("0123456789abcdef"), std::string::npos);
  EXPECT_NE(NewToken(), token);
}

TEST(Access, TheSiteThatIsTrustedMayChangeThings) {
  http::Request request = Get({{"host", "127.0.0.1:8200"},
                               {"origin", "http://page.example"},
                               {"sec-fetch-site", "cross-site"}});
  request.method = "POST";
  EXPECT_FALSE(IsForeignPage(request, "http://page.example"));
  EXPECT_TRUE(IsForeignPage(request, "http://page.example:81"));
  request.headers = {{"host", "127.0.0.1:8200"}, {"sec-fetch-site", "cross-site"}};
  EXPECT_TRUE(IsForeignPage(request, "http://page.example"));
}

TEST(Access, OtherSitesPagesMayReadNothingAndChangeNothing) {
  http::Request request = Get({{"host", "127.0.0.1:8200"}, {"origin", "http://evil.example"}});
  EXPECT_FALSE(IsForeignPage(request, "")) << "a browser keeps the answer from the page";
  request.method = "POST";
  EXPECT_TRUE(IsForeignPage(request, ""));
  request.headers = {{"host", "127.0.0.1:8200"}, {"origin", "http://127.0.0.1:8200"}};
  EXPECT_FALSE(IsForeignPage(request, ""));
  request.headers = {{"host", "127.0.0.1:8200"}, {"origin", "http://127.0.0.1:8201"}};
  EXPECT_TRUE(IsForeignPage(request, ""));
  request.headers = {{"host", "127.0.0.1:8200"}, {"origin", "null"}};
  EXPECT_TRUE(IsForeignPage(request, ""));
  request.headers = {{"host", "127.0.0.1:8200"}, {"sec-fetch-site", "cross-site"}};
  EXPECT_TRUE(IsForeignPage(request, ""));
  request.headers = {{"host", "127.0.0.1:8200"}, {"sec-fetch-site", "same-origin"}};
  EXPECT_FALSE(IsForeignPage(request, ""));
  request.headers = {{"host", "127.0.0.1:8200"}};
  EXPECT_FALSE(IsForeignPage(request, "")) << "no browser";
}

}  // namespace
}  // namespace tarnbackend
