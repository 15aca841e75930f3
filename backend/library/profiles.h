// The profiles that this machine can run, for choosing one from a list.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "client/default_profile.h"

namespace tarnbackend {

// What a machine can run besides software.
struct Machine {
  bool vaapi = false;
  bool gstreamer = false;
  bool platform = false;           // the platform's own encoder
  unsigned software_height = 720;  // lines that its processor encodes while somebody watches

  bool Has(tarnclient::Encoder encoder) const;
};

// Reads files of the host, quickly, and neither forks nor waits.
Machine ThisMachine();

struct Profile {
  std::string key;
  std::string label;  // "720p, 1.5 Mbit/s"

  bool operator==(const Profile&) const = default;
};
// By kind: "hls", "smooth", "webm", "http".
using ProfileLists = std::map<std::string, std::vector<Profile>>;

// What encodes a profile's picture, by its key.
tarnclient::Encoder EncoderOf(const std::string& key);

// The label of a profile, by the words of its key.
std::string ProfileLabel(const std::string& key);

// Those of the keys that the machine can run: a copy first, then by lines and bit rate, the most
// first. Pure.
std::vector<Profile> RunnableProfiles(const std::vector<std::string>& keys, const Machine& machine);

// The same of the shipped profile files; a file that cannot be read has none.
ProfileLists LoadProfiles(const Machine& machine);

}  // namespace tarnbackend
