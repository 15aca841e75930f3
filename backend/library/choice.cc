#include "backend/library/choice.h"

#include <algorithm>
#include <string_view>

#include "backend/library/media_type.h"

namespace tarnbackend {
namespace {

using tarnclient::Encoder;

constexpr char kRemuxProfile[] = "hls_remux_aac_ab128";
constexpr char kMp4Family[] = "mov,mp4,m4a,3gp,3g2,mj2";

struct Box {
  unsigned width;
  unsigned height;
};
// What the profiles fit pictures into, ascending.
constexpr Box kBoxes[] = {{480, 360}, {852, 480}, {1280, 720}, {1920, 1080}};

const Facts::Audio* FirstDecodable(const Facts& facts) {
  const auto found = std::ranges::find_if(facts.audio, &Facts::Audio::decodable);
  return found == facts.audio.end() ? nullptr : &*found;
}

// The track that a browser plays of a file: the one that the container marks, else the first.
const Facts::Audio* BrowserTrack(const Facts& facts) {
  const auto found = std::ranges::find_if(facts.audio, &Facts::Audio::is_default);
  if (found != facts.audio.end()) return &*found;
  return facts.audio.empty() ? nullptr : &facts.audio.front();
}

// The container is what its type says, so that a browser is asked about what it would get.
bool ContainerMatchesType(const Facts& facts) {
  const std::string& type = facts.type;
  if (facts.container == kMp4Family) return type == "video/mp4";
  if (facts.container == "matroska,webm") return type == "video/webm" || type == "video/x-matroska";
  return (facts.container == "ogg" && type == "video/ogg") ||
         (facts.container == "mpegts" && type == "video/mp2t");
}

Check MakeCheck(const Facts& facts, const std::string& name, const std::string& type,
                const std::string& video, const std::string& audio) {
  const std::string audio_type = "audio" + type.substr(type.find('/'));
  return {.name = name,
          .type = FullType(type, video, audio),
          .video = FullType(type, video, ""),
          .audio = audio.empty() ? "" : FullType(audio_type, "", audio),
          .width = facts.video.width,
          .height = facts.video.height,
          .frame_rate = facts.video.frame_rate > 0 ? facts.video.frame_rate : 25,
          .bit_rate = facts.video.bit_rate};
}

// For what an encoder makes: `height` lines, of the source's shape.
void SetEncodedSize(Check& check, unsigned height) {
  constexpr unsigned kBitRates[] = {500'000, 1'000'000, 1'500'000, 4'500'000};
  const auto* box = std::ranges::find(kBoxes, height, &Box::height);
  const double scale = std::min(double{1} * box->width / std::max(check.width, 1U),
                                double{1} * box->height / std::max(check.height, 1U));
  // As the engine rounds.
  check.width = static_cast<unsigned>(check.width * scale + 0.001) & ~1U;
  check.height = static_cast<unsigned>(check.height * scale + 0.001) & ~1U;
  check.bit_rate = kBitRates[box - kBoxes];
}

// What a usual browser answers to a check's question.
bool UsualAnswer(const Facts& facts, const std::string& name) {
  if (name != "direct") return name == "remux" || name == "h264" || name == "webm" || name == "mse";
  const bool web = facts.type == "video/mp4" || facts.type == "video/webm";
  const std::string& codec = facts.video.codec;
  const bool video = BitDepth(facts.video.pixel_format) == 8 &&
                     (codec == "h264" || codec == "vp8" || codec == "vp9") &&
                     !facts.video.profile.starts_with("High 4:");
  constexpr std::string_view kAudio[] = {"aac", "mp3", "opus", "vorbis", "flac"};
  const Facts::Audio* audio = BrowserTrack(facts);
  return web && video &&
         (audio == nullptr || std::ranges::find(kAudio, audio->codec) != std::end(kAudio));
}

// Puts a choice together: one question after the other, the best way first.
class Chooser {
 public:
  Chooser(const Facts& facts, const Wish& wish, const Machine& machine,
          const ProfileLists& profiles)
      : facts_(facts),
        wish_(wish),
        machine_(machine),
        profiles_(profiles),
        checks_(Checks(facts)) {}

  Choice Run() {
    if (!facts_.error.empty()) return Refuse("not-playable", "The file " + facts_.error + ".");
    if (!wish_.audio.empty() && facts_.FindAudio(wish_.audio) == nullptr) {
      return Refuse("bad-request", "There is no audio track " + wish_.audio + ".");
    }
    if (wish_.profile != "auto" && !wish_.profile.empty()) return TakeProfile();
    if (wish_.kind == "file") return TakeFile("The file itself was asked for.");
    const bool any = wish_.kind == "auto";
    const std::string obstacle = any ? ObstacleToFile() : "";
    if (any && obstacle.empty()) return TakeFile("The browser plays this file as it is.");
    if (!obstacle.empty()) Say(obstacle);
    if (!PickDecodableTrack()) return choice_;
    if (wish_.kind == "hls" || (any && CanStream("remux") && MayCopy())) return TakeHls();
    if (any && CanStream("h264")) return TakeHls();
    if (wish_.kind == "smooth") return TakeSmooth();
    if (any) Say("The browser cannot take H.264 in segments.");
    if (wish_.kind == "webm" || (any && Can("webm"))) return TakeWebm();
    if (wish_.kind == "http" || (any && Can("http"))) return TakeHttp();
    if (any) return Refuse("not-playable", "The browser plays nothing that can be made of it.");
    return Refuse("bad-request", "There is no kind of stream of that name.");
  }

 private:
  void Say(std::string sentence) { choice_.why.push_back(std::move(sentence)); }

  Choice Refuse(const std::string& word, const std::string& sentence) {
    choice_.refusal = word;
    choice_.kind = choice_.profile = choice_.audio = "";
    Say(sentence);
    return choice_;
  }

  Choice Take(const std::string& kind, const std::string& profile) {
    choice_.kind = kind;
    choice_.profile = profile;
    return choice_;
  }

  Choice TakeFile(const std::string& sentence) {
    const Facts::Audio* track = BrowserTrack(facts_);
    choice_.audio = track == nullptr ? "" : track->id;
    Say(sentence);
    return Take("file", "");
  }

  bool HasCheck(const std::string& name) const {
    return std::ranges::find(checks_, name, &Check::name) != checks_.end();
  }
  bool Says(const std::string& name) const {
    const auto found = wish_.can.find(name);
    return found == wish_.can.end() ? UsualAnswer(facts_, name) : found->second;
  }
  bool Can(const std::string& name) const { return HasCheck(name) && Says(name); }
  bool CanStream(const std::string& name) const {
    return Can(name) && (Says("mse") || Says("hls"));
  }

  bool IsOverLimit() const {
    return wish_.limit != 0 && std::min(facts_.video.width, facts_.video.height) > wish_.limit;
  }

  // Why a browser cannot play the file itself; empty when it can.
  std::string ObstacleToFile() const {
    if (IsOverLimit()) {
      return "At most " + std::to_string(wish_.limit) + " lines were asked for.";
    }
    const Facts::Audio* track = BrowserTrack(facts_);
    if (!wish_.audio.empty() && track != nullptr && track->id != wish_.audio) {
      return "Browsers do not play the chosen audio track of a file.";
    }
    // The matrix of an MP4 file is applied by browsers; other containers tell theirs otherwise.
    if (facts_.video.rotation != 0 && facts_.container != kMp4Family) {
      return "The picture has to be turned upright.";
    }
    if (Can("direct")) return "";
    const std::string sound = track == nullptr ? "" : CodecName(track->codec);
    // Where the picture can be copied and the container is one that browsers know, it is the sound.
    if (facts_.remux && track != nullptr && facts_.type == "video/mp4" && !UsualSound(*track)) {
      return "The sound (" + sound + ") is not one the browser plays.";
    }
    return "The browser does not play this file as it is (" + ContainerName(facts_) + ", " +
           CodecName(facts_.video.codec) + (sound.empty() ? "" : ", " + sound) + ").";
  }

  static bool UsualSound(const Facts::Audio& track) {
    return track.codec == "aac" || track.codec == "mp3";
  }

  // Everything but the file itself needs a track that the engine converts.
  bool PickDecodableTrack() {
    if (facts_.audio.empty()) return true;
    const Facts::Audio* first = &facts_.audio.front();
    const Facts::Audio* track =
        wish_.audio.empty() ? FirstDecodable(facts_) : facts_.FindAudio(wish_.audio);
    if (track == nullptr || !track->decodable) {
      Refuse("TransAudioNotSupported", "The sound (" +
                                           CodecName((track == nullptr ? first : track)->codec) +
                                           ") cannot be converted.");
      return false;
    }
    if (wish_.audio.empty() && track != first) {
      Say("The first audio track (" + CodecName(first->codec) +
          ") cannot be converted; another one is played.");
    }
    choice_.audio = track->id;
    return true;
  }

  bool MayCopy() const { return facts_.remux && !IsOverLimit() && Says("remux"); }

  Encoder UsableEncoder() const {
    const Encoder encoder = EncoderOf(facts_.transcode);
    return machine_.Has(encoder) ? encoder : Encoder::kSoftware;
  }

  unsigned Height(Encoder encoder) const {
    unsigned most = wish_.limit == 0 ? kBoxes[3].height : wish_.limit;
    if (encoder == Encoder::kSoftware) most = std::min(most, machine_.software_height);
    return EncodedHeight(facts_.video.width, facts_.video.height, most);
  }

  Choice TakeHls() {
    if (MayCopy()) {
      const Facts::Audio* track = facts_.FindAudio(choice_.audio);
      const bool copied = track == nullptr || track->codec == "aac";
      Say(copied
              ? "Picture and sound are copied."
              : "The picture is copied, the sound (" + CodecName(track->codec) + ") becomes AAC.");
      return Take("hls", kRemuxProfile);
    }
    const Encoder encoder = UsableEncoder();
    return Encoded("hls", tarnclient::HlsEncodingProfile(encoder, Height(encoder)));
  }

  Choice TakeSmooth() {
    const Encoder encoder =
        UsableEncoder() == Encoder::kPlatform ? Encoder::kPlatform : Encoder::kSoftware;
    return Encoded("smooth", tarnclient::SmoothEncodingProfile(encoder, Height(encoder)));
  }

  Choice TakeWebm() {
    const unsigned height = Height(Encoder::kSoftware);
    return Encoded("webm", height >= 720   ? "webm_hd720_vp8_vb1500_vorbis_ab128"
                           : height >= 480 ? "webm_hd480_vp8_vb1000_vorbis_ab128"
                                           : "webm_480x360_vp8_vb500_vorbis_ab96");
  }

  Choice TakeHttp() {
    return Encoded("http", Height(Encoder::kSoftware) >= 720 ? "http_hd720_x264_vb1500_aac_ab128"
                                                             : "http_hd480_x264_vb1000_aac_ab96");
  }

  Choice Encoded(const std::string& kind, const std::string& key) {
    const bool webm = kind == "webm";
    std::string sentence = "The picture (" + CodecName(facts_.video.codec);
    if (BitDepth(facts_.video.pixel_format) > 8) {
      sentence += ", " + std::to_string(BitDepth(facts_.video.pixel_format)) + " bit";
    }
    sentence += ") is encoded";
    if (EncoderOf(key) != Encoder::kSoftware) sentence += " by hardware";
    sentence += webm ? " as VP8" : " as H.264";
    Say(sentence + ", " + ProfileLabel(key) + ".");
    return Take(kind, key);
  }

  Choice TakeProfile() {
    for (const auto& [kind, list] : profiles_) {
      if (wish_.kind != "auto" && wish_.kind != kind) continue;
      if (std::ranges::find(list, wish_.profile, &Profile::key) == list.end()) continue;
      if (!PickDecodableTrack()) return choice_;
      if (wish_.profile == kRemuxProfile && !facts_.remux) {
        return Refuse("not-playable", "The picture (" + CodecName(facts_.video.codec) +
                                          ") cannot be copied into HLS.");
      }
      Say("This profile was asked for.");
      return Take(kind, wish_.profile);
    }
    return Refuse("bad-request", "This machine has no such profile for this kind of stream.");
  }

  const Facts& facts_;
  const Wish& wish_;
  const Machine& machine_;
  const ProfileLists& profiles_;
  const std::vector<Check> checks_;
  Choice choice_;
};

}  // namespace

unsigned EncodedHeight(unsigned width, unsigned height, unsigned most) {
  // A picture that lacks a few lines counts as whole.
  constexpr double kEnlarged = 1.1;
  unsigned chosen = kBoxes[0].height;
  for (const Box& box : kBoxes) {
    const double scale = std::min(double{1} * box.width / std::max(width, 1U),
                                  double{1} * box.height / std::max(height, 1U));
    if (box.height <= most && scale <= kEnlarged) chosen = box.height;
  }
  return chosen;
}

std::vector<Check> Checks(const Facts& facts) {
  std::vector<Check> checks;
  if (!facts.error.empty()) return checks;
  const bool sound = !facts.audio.empty();
  const std::string video = VideoCodecString(facts.video);
  const Facts::Audio* track = BrowserTrack(facts);
  const std::string audio = track == nullptr ? "" : AudioCodecString(*track);
  if (ContainerMatchesType(facts) && !video.empty() && sound == !audio.empty()) {
    checks.push_back(MakeCheck(facts, "direct", facts.type, video, audio));
  }
  const std::string aac = sound ? "mp4a.40.2" : "";
  if (facts.remux) checks.push_back(MakeCheck(facts, "remux", "video/mp4", video, aac));
  const unsigned height = EncodedHeight(facts.video.width, facts.video.height, kBoxes[3].height);
  const std::string main = EncodedVideoString(height);
  checks.push_back(MakeCheck(facts, "h264", "video/mp4", main, aac));
  SetEncodedSize(checks.back(), height);
  checks.push_back(MakeCheck(facts, "webm", "video/webm", "vp8", sound ? "vorbis" : ""));
  SetEncodedSize(checks.back(), std::min(height, tarnclient::kUsualHeight));
  checks.push_back(MakeCheck(facts, "http", "video/x-matroska", main, aac));
  SetEncodedSize(checks.back(), std::min(height, tarnclient::kUsualHeight));
  return checks;
}

Json::Value JsonFromChecks(const std::vector<Check>& checks) {
  Json::Value list(Json::arrayValue);
  for (const Check& check : checks) {
    Json::Value& value = list.append(Json::Value(Json::objectValue));
    value["name"] = check.name;
    value["type"] = check.type;
    value["video"] = check.video;
    value["audio"] = check.audio;
    value["width"] = check.width;
    value["height"] = check.height;
    value["frame_rate"] = check.frame_rate;
    value["bit_rate"] = check.bit_rate;
  }
  return list;
}

Choice Choose(const Facts& facts, const Wish& wish, const Machine& machine,
              const ProfileLists& profiles) {
  return Chooser(facts, wish, machine, profiles).Run();
}

std::string Verdict(const Choice& choice) {
  if (!choice.refusal.empty()) return "";
  if (choice.kind == "file") return "direct";
  return choice.profile == kRemuxProfile ? "remux" : "transcode";
}

}  // namespace tarnbackend
