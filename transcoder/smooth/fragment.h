// A Smooth Streaming fragment: samples of one track and the boxes around them.
//
// The format is that of [MS-SSTR], 2.2.4, which are movie fragments of ISO/IEC 14496-12. Times are
// absolute, in units of 100 ns.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace tarn::smooth {

// 100 ns since the source's start.
using Time = int64_t;
inline constexpr Time kTimePerSecond = 10'000'000;

enum class TrackId : uint32_t { kVideo = 1, kAudio = 2 };

class Fragment {
 public:
  // Fragment `number` of the presentation, counted from 0.
  Fragment(TrackId track, uint32_t number);

  // The next sample. `key`: decoding may begin with it.
  void Add(Time time, bool key, std::string_view data);

  // What stands before the samples in the file, when the last one lasts until `end`.
  std::string Head(Time end) const;
  const std::string& data() const { return data_; }
  bool empty() const { return samples_.empty(); }

 private:
  struct Sample {
    Time time;
    uint32_t size;
    bool key;
  };

  TrackId track_;
  uint32_t number_;
  std::vector<Sample> samples_;
  std::string data_;
};

// One access unit of H.264 in byte stream format, as samples hold it: each NAL unit behind its
// length in four bytes (ISO/IEC 14496-15). Parameter sets and delimiters are left out, since
// clients have the former from the manifest, and so is what the encoder says about itself.
std::string ToSample(std::string_view access_unit);

}  // namespace tarn::smooth
