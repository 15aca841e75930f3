// How far a byte stream in one of the engine's containers has come, from its own time stamps.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "cluster_clock.h"

namespace tarncli {

// MPEG-TS, ASF or Matroska (WebM), told by the first bytes.
class MediaClock {
 public:
  void Feed(const char* data, size_t size);

  // Milliseconds between the first time stamp and the newest one; nothing before the first, and for
  // any other container.
  std::optional<uint64_t> elapsed() const;

 private:
  enum class Container { kUnknown, kOther, kMatroska, kTransportStream, kAsf };

  void Recognise();
  void FeedTransportStream();
  void FeedAsf();
  void Note(uint64_t milliseconds);

  Container container_ = Container::kUnknown;
  ClusterClock clusters_;
  std::string window_;      // bytes that are not looked at yet
  size_t packet_size_ = 0;  // of ASF; 0 before the header was read
  std::optional<uint64_t> first_;
  uint64_t newest_ = 0;
};

}  // namespace tarncli
