// How often each client may have the server do what costs something.
#pragma once

#include <chrono>
#include <string>
#include <unordered_map>

namespace tarnbackend {

// A token bucket for each client. One thread.
class RateLimit {
 public:
  using Time = std::chrono::steady_clock::time_point;

  // `per_second` requests in the long run, `burst` at once.
  RateLimit(double per_second, double burst) : per_second_(per_second), burst_(burst) {}

  // The client may do one more at this time, which never goes back.
  bool Take(const std::string& client, Time now);

  size_t clients() const { return buckets_.size(); }

 private:
  struct Bucket {
    double tokens;
    Time time;
  };

  void ForgetFull(Time now);

  const double per_second_;
  const double burst_;
  std::unordered_map<std::string, Bucket> buckets_;
};

}  // namespace tarnbackend
