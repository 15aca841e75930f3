#include "backend/serve/rate_limit.h"

#include <algorithm>

namespace tarnbackend {
namespace {

constexpr size_t kClientsToKeep = 4096;

double SecondsBetween(RateLimit::Time from, RateLimit::Time to) {
  return std::chrono::duration<double>(to - from).count();
}

}  // namespace

bool RateLimit::Take(const std::string& client, Time now) {
  if (buckets_.size() > kClientsToKeep) ForgetFull(now);
  Bucket& bucket = buckets_.try_emplace(client, Bucket{burst_, now}).first->second;
  bucket.tokens = std::min(burst_, bucket.tokens + SecondsBetween(bucket.time, now) * per_second_);
  bucket.time = now;
  if (bucket.tokens < 1) return false;
  bucket.tokens -= 1;
  return true;
}

void RateLimit::ForgetFull(Time now) {
  // A bucket that is full again says nothing.
  std::erase_if(buckets_, [&](const auto& entry) {
    const Bucket& bucket = entry.second;
    return bucket.tokens + SecondsBetween(bucket.time, now) * per_second_ >= burst_;
  });
}

}  // namespace tarnbackend
