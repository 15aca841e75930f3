// What a probe told about one video, in the form in which the back end keeps it.
//
// Pure. Any thread.
#pragma once

#include <json/value.h>

#include <cstdint>
#include <string>
#include <vector>

namespace tarnbackend {

struct Facts {
  struct Video {
    std::string codec;         // libavcodec's short name
    std::string profile;       // libavcodec's name, "" when unknown
    std::string tag;           // FourCC
    std::string pixel_format;  // libavutil's name
    unsigned level = 0;        // as libavcodec counts, 0 when unknown
    unsigned width = 0;        // pixels as shown, turned and in square pixels
    unsigned height = 0;
    double frame_rate = 0;  // 0 when unknown
    unsigned bit_rate = 0;  // bits per second, 0 when unknown
    unsigned rotation = 0;  // clockwise degrees by which a player turns it
  };
  struct Audio {
    std::string id;  // the engine's
    std::string codec;
    std::string profile;
    std::string language;  // "" when unknown
    unsigned channels = 0;
    unsigned sample_rate = 0;  // Hz
    bool is_default = false;
    bool decodable = true;  // the engine converts it
  };
  struct Subtitle {
    std::string id;         // what clients name it by: "t3" is track 3, "f0" the first file
    std::string engine_id;  // the engine's: a track's number, or a file's path
    std::string name;
    std::string language;  // "" when unknown
    bool is_file = false;
  };

  std::string error;      // why it cannot be played; the rest is empty then
  std::string container;  // libavformat's name
  std::string type;       // MIME type of the file
  double duration = 0;    // seconds, 0 when unknown
  uint64_t bit_rate = 0;  // of everything, bits per second, 0 when unknown
  Video video;
  std::vector<Audio> audio;
  std::vector<Subtitle> subtitles;
  bool planned = false;   // its keyframes were analysed
  bool remux = false;     // the picture can be copied into HLS
  std::string transcode;  // the key of the HLS profile that this machine encodes it with

  // By the client's name and by the engine's; null for an unknown one.
  const Subtitle* FindSubtitle(const std::string& id) const;
  const Subtitle* FindSubtitleOfEngine(const std::string& engine_id) const;
  const Audio* FindAudio(const std::string& id) const;
};

// As the worker's call "probe" sends them. A member that is missing or of another type is as if
// nothing was known; what is no object, or has neither an error nor a picture, gives an error.
Facts FactsFromJson(const Json::Value& value);
Json::Value JsonFromFacts(const Facts& facts);

// What clients are shown: the members that docs/api.md lists, and no path.
Json::Value PublicFacts(const Facts& facts);

}  // namespace tarnbackend
