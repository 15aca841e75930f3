// The position that a Matroska (or WebM) byte stream has reached, from its clusters' time stamps.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

namespace tarncli {

class ClusterClock {
 public:
  void Feed(const char* data, size_t size);

  // Time stamp of the newest cluster in milliseconds (the time unit that every muxer of the system
  // writes); nothing before the first cluster.
  std::optional<uint64_t> milliseconds() const { return milliseconds_; }

 private:
  std::string window_;  // the bytes behind which a cluster's head may still be incomplete
  std::optional<uint64_t> milliseconds_;
};

}  // namespace tarncli
