#include "backend/library/profiles.h"

#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <optional>
#include <string_view>
#include <tuple>
#include <utility>

#include "tarnvte/json_utils.h"
#include "tarnvte/platform_utils.h"

namespace tarnbackend {
namespace {

using tarnclient::Encoder;

// What a key says, word by word: "hls_hd720_h264_vaapi_vb1500_aac_ab128".
struct KeyWords {
  unsigned lines = 0;     // 0: as the source
  unsigned kilobits = 0;  // of video
  Encoder encoder = Encoder::kSoftware;
  bool copy = false;
  std::string_view video;  // "VP9" and the like, where it is not what the kind usually has
  std::string_view audio;
};

constexpr std::pair<std::string_view, unsigned> kSizes[] = {{"240p", 240},    {"320p", 320},
                                                            {"480x360", 360}, {"hd480", 480},
                                                            {"hd720", 720},   {"hd1080", 1080}};
constexpr std::pair<std::string_view, Encoder> kEncoders[] = {
    {"vaapi", Encoder::kVaapi}, {"gst", Encoder::kGstreamer}, {"smd", Encoder::kPlatform}};
// What is worth a word in a label; H.264 and AAC are not.
constexpr std::pair<std::string_view, std::string_view> kVideoNames[] = {
    {"vp8", "VP8"}, {"vp9", "VP9"}, {"wmv2", "WMV"}};
constexpr std::pair<std::string_view, std::string_view> kAudioNames[] = {{"ac3", "AC-3"},
                                                                         {"mp3", "MP3"}};

template <typename T, size_t kCount>
std::optional<T> Meaning(const std::pair<std::string_view, T> (&words)[kCount],
                         std::string_view word) {
  const auto* found = std::ranges::find(words, word, &std::pair<std::string_view, T>::first);
  if (found == std::end(words)) return {};
  return found->second;
}

unsigned NumberAfter(std::string_view prefix, std::string_view word) {
  unsigned number = 0;
  if (word.starts_with(prefix)) {
    std::from_chars(word.data() + prefix.size(), word.data() + word.size(), number);
  }
  return number;
}

KeyWords Parse(std::string_view key) {
  KeyWords words;
  while (!key.empty()) {
    const std::string_view word = key.substr(0, key.find('_'));
    key.remove_prefix(std::min(word.size() + 1, key.size()));
    words.copy |= word == "remux";
    words.lines = Meaning(kSizes, word).value_or(words.lines);
    words.encoder = Meaning(kEncoders, word).value_or(words.encoder);
    words.video = Meaning(kVideoNames, word).value_or(words.video);
    words.audio = Meaning(kAudioNames, word).value_or(words.audio);
    words.kilobits = std::max(words.kilobits, NumberAfter("vb", word));
  }
  return words;
}

std::string BitRate(unsigned kilobits) {
  if (kilobits < 1000) return std::to_string(kilobits) + " kbit/s";
  std::string text = std::to_string(kilobits / 1000);
  const unsigned tenths = kilobits % 1000 / 100;
  if (tenths > 0) text += "." + std::to_string(tenths);
  return text + " Mbit/s";
}

}  // namespace

bool Machine::Has(Encoder encoder) const {
  switch (encoder) {
    case Encoder::kVaapi:
      return vaapi;
    case Encoder::kGstreamer:
      return gstreamer;
    case Encoder::kPlatform:
      return platform;
    case Encoder::kSoftware:
      break;
  }
  return true;
}

Machine ThisMachine() {
  const auto& host = librb::util::PlatformUtils::GetInst();
  const bool hardware = host.IsSupportHWTranscode() && host.IsHWSettingEnabled();
  constexpr long kManyProcessors = 4;
  return {.vaapi = hardware && host.IsVaapiFFmpegEnabled(),
          .gstreamer = hardware && host.IsSupportGstreamer(),
          .platform = hardware && host.IsEvansport(),
          .software_height =
              sysconf(_SC_NPROCESSORS_ONLN) >= kManyProcessors ? 1080 : tarnclient::kUsualHeight};
}

Encoder EncoderOf(const std::string& key) { return Parse(key).encoder; }

std::string ProfileLabel(const std::string& key) {
  const KeyWords words = Parse(key);
  if (words.copy) return "Picture as it is";
  std::string label = words.lines == 0 ? key : std::to_string(words.lines) + "p";
  if (words.kilobits > 0) label += ", " + BitRate(words.kilobits);
  if (!words.video.empty()) label += ", " + std::string(words.video);
  if (!words.audio.empty()) label += ", " + std::string(words.audio);
  if (words.encoder != Encoder::kSoftware) label += ", hardware";
  return label;
}

std::vector<Profile> RunnableProfiles(const std::vector<std::string>& keys,
                                      const Machine& machine) {
  std::vector<std::pair<KeyWords, std::string>> runnable;
  for (const std::string& key : keys) {
    const KeyWords words = Parse(key);
    if (machine.Has(words.encoder)) runnable.emplace_back(words, key);
  }
  const auto rank = [](const auto& entry) {
    const auto& [words, key] = entry;
    const bool software = words.encoder == Encoder::kSoftware;
    return std::make_tuple(!words.copy, -static_cast<int>(words.lines),
                           -static_cast<int>(words.kilobits), software, std::string_view(key));
  };
  std::ranges::sort(runnable, [&](const auto& a, const auto& b) { return rank(a) < rank(b); });
  std::vector<Profile> profiles;
  for (const auto& [words, key] : runnable) profiles.push_back({key, ProfileLabel(key)});
  return profiles;
}

ProfileLists LoadProfiles(const Machine& machine) {
  constexpr std::pair<const char*, const char*> kKinds[] = {
      {"hls", "HLS"}, {"smooth", "SS"}, {"webm", "WEBM"}, {"http", "HTTP"}};
  ProfileLists lists;
  for (const auto& [kind, word] : kKinds) {
    Json::Value document;
    const std::string file = tarnclient::DefaultProfileFile(word);
    const bool read =
        LibReelbay::ReadJsonFromFileWithoutLock(file, document) && document.isObject();
    lists[kind] =
        RunnableProfiles(read ? document.getMemberNames() : Json::Value::Members(), machine);
  }
  return lists;
}

}  // namespace tarnbackend
