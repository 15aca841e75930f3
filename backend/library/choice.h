// How a video is played: as it is, copied, or encoded, for a browser, on a machine.
//
// Pure. Any thread.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "backend/library/facts.h"
#include "backend/library/profiles.h"

namespace tarnbackend {

// A question to the browser. With the kinds of stream that need it:
// - "direct": the file itself, in a video element; missing when no browser has names for it
// - "remux": HLS with the picture copied, through Media Source Extensions; missing where the
// picture
//   cannot be copied
// - "h264": what the other profiles for HLS and Smooth Streaming give, through the same
// - "webm": what the profiles for WebM give, in a video element
// - "http": what the progressive profiles for computers give, in a video element
struct Check {
  std::string name;
  std::string type;   // with all codecs: for canPlayType and MediaSource.isTypeSupported
  std::string video;  // with one codec: for MediaCapabilities, which takes no more
  std::string audio;  // the same, "" without sound
  unsigned width = 0;
  unsigned height = 0;
  double frame_rate = 0;
  unsigned bit_rate = 0;  // of the video, bits per second

  bool operator==(const Check&) const = default;
};

std::vector<Check> Checks(const Facts& facts);
Json::Value JsonFromChecks(const std::vector<Check>& checks);

struct Wish {
  std::string kind = "auto";     // "auto", "file", "hls", "smooth", "webm", "http"
  std::string profile = "auto";  // or a key
  std::string audio;             // a track's id; "" is the first that can be played
  unsigned limit = 0;            // the most lines; 0: as many as there are
  // What the browser says, by the names of the checks, "hls" (plays it by itself) and "mse" (has
  // Media Source Extensions). For names that are missing it is taken for a usual one.
  std::map<std::string, bool> can;
};

struct Choice {
  // "" when there is a way; else a word of the API: "bad-request", "not-playable",
  // "TransAudioNotSupported".
  std::string refusal;
  std::string kind;  // "file", "hls", "smooth", "webm", "http"
  std::string profile;
  std::string audio;             // the track's id, "" for a video without sound
  std::vector<std::string> why;  // sentences for people; of a refusal, too
};

Choice Choose(const Facts& facts, const Wish& wish, const Machine& machine,
              const ProfileLists& profiles);

// A choice in a word: "direct", "remux" or "transcode"; "" for a refusal. The choice for an empty
// wish says what a usual browser needs.
std::string Verdict(const Choice& choice);

// The most lines among 360, 480, 720 and 1080 that a transcoder should make of a picture: not
// notably more than it has, nor more than `most`. At least 360.
unsigned EncodedHeight(unsigned width, unsigned height, unsigned most);

}  // namespace tarnbackend
