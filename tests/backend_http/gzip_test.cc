#include "backend/http/gzip.h"

#include <gtest/gtest.h>

#include "gunzip.h"

namespace tarnbackend::http {
namespace {

TEST(Gzip, IsUndoneByZlib) {
  for (const size_t size : {size_t{0}, size_t{1}, size_t{5000}, size_t{300'000}}) {
    std::string text;
    for (size_t i = 0; text.size() < size; ++i) text += std::to_string(i * i);
    text.resize(size);
    EXPECT_EQ(test::Gunzip(Gzip(text)), text) << size;
  }
}

TEST(Gzip, IsTheSameForTheSameText) { EXPECT_EQ(Gzip("text"), Gzip("text")); }

TEST(Gzip, Compresses) { EXPECT_LT(Gzip(std::string(100'000, 'a')).size(), size_t{1000}); }

}  // namespace
}  // namespace tarnbackend::http
