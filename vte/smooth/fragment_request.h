// What a client asks for by a fragment's identifier.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace LibTarnVTE {

inline constexpr int64_t kTicksPerSecond = 10'000'000;  // of 100 ns
inline constexpr int64_t kFragmentSeconds = 5;
inline constexpr int64_t kFragmentTicks = kFragmentSeconds * kTicksPerSecond;

inline constexpr char kVideoType[] = "video=";
inline constexpr char kAudioType[] = "audio=";

struct FragmentRequest {
  std::string quality;  // name of the folder; a safe one
  std::string type;     // kVideoType or kAudioType
  int64_t time = 0;     // 100 ns

  bool IsOnGrid() const { return time % kFragmentTicks == 0; }
};

// Takes an identifier apart without judging it; see SmoothStream::ParseFragId.
bool SplitFragmentId(const std::string& id, std::string& time, std::string& type,
                     std::string& quality);

// The request, when it is one that a file name can be made of: a name for a folder, a type, and a
// time in digits that a seek can reach.
std::optional<FragmentRequest> ParseFragmentRequest(const std::string& id);

// The time in the name of a fragment's file of that type, whole or in work; -1 for other files.
int64_t TimeInName(const std::string& file_name, const std::string& type);

}  // namespace LibTarnVTE
