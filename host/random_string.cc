#include "tarnvte/random_string.h"

#include <unistd.h>

#include <random>
#include <string_view>

namespace librb::util {
namespace internal {

// Uniform integers in [low, high]. A process that was forked off starts a sequence of its own.
class RandomInt {
 public:
  RandomInt(int low, int high) : distribution_(low, high) {}

  int next() {
    if (const pid_t self = getpid(); self != seeded_by_) {
      engine_.seed(std::random_device("default")());
      seeded_by_ = self;
    }
    return distribution_(engine_);
  }

 private:
  std::mt19937_64 engine_;
  std::uniform_int_distribution<int> distribution_;
  pid_t seeded_by_ = 0;
};

}  // namespace internal

std::string RandomString(const std::string& prefix, int count) {
  static constexpr std::string_view kAlphabet =
      "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789";
  static internal::RandomInt index(0, static_cast<int>(kAlphabet.size()) - 1);
  std::string text = prefix;
  for (int i = 0; i < count; ++i) text += kAlphabet[static_cast<size_t>(index.next())];
  return text;
}

}  // namespace librb::util
