// The shipped profile files, and the table in docs/profiles.md that describes them.
#pragma once

#include <map>
#include <ostream>
#include <string>
#include <vector>

namespace tarn::test {

struct ProfileRow {
  std::string file;  // "webm", "hls", ...
  std::string key;
  std::string container;
  std::string video;
  std::string audio;
  std::string size;
  std::string video_kbits;
  std::string audio_kbits;
  std::string runs_on;
};
void PrintTo(const ProfileRow& row, std::ostream* out);

// Every row of the table, in its order.
std::vector<ProfileRow> ReadProfileTable();

// One profile file as key and value. Throws std::runtime_error for anything but one JSON object of
// strings without repeated keys.
std::map<std::string, std::string> ReadProfileFile(const std::string& file);

// A profile's words, as streams split them.
std::vector<std::string> ProfileWords(const std::string& value);

// The word behind the first of these options, or empty.
std::string WordAfter(const std::vector<std::string>& words,
                      const std::vector<std::string>& options);

}  // namespace tarn::test
