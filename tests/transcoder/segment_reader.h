// Media files as another reader sees them, packet by packet.
#pragma once

#include <json/reader.h>
#include <json/value.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "base/media_time.h"
#include "base/paths.h"
#include "tests/transcoder/run_program.h"

namespace tarn::test {

struct SeenPacket {
  double pts = 0;  // seconds; the decoding time where there is no other
  double dts = 0;
  int size = 0;
  bool key = false;
  bool discarded = false;  // lies before an edit list's start
};

struct SeenMedia {
  std::vector<SeenPacket> video;
  std::vector<SeenPacket> sound;
  Json::Value streams;
  bool timed = true;     // the video's packets say when they are shown
  double start = 0;      // of the container
  std::string messages;  // what the reader complained about
  int status = -1;

  double FirstKeyframe() const {
    const auto first = std::find_if(video.begin(), video.end(),
                                    [](const SeenPacket& packet) { return packet.key; });
    return first == video.end() ? 0 : first->pts;
  }

  const Json::Value& Stream(const std::string& type) const {
    static const Json::Value none;
    for (const Json::Value& stream : streams) {
      if (stream["codec_type"].asString() == type) return stream;
    }
    return none;
  }
};

inline SeenMedia ReadMedia(const std::string& path) {
  const ProgramResult probe = RunProgram(
      {"/usr/bin/ffprobe", "-v", "error", "-of", "json", "-show_entries",
       "packet=stream_index,codec_type,pts,dts,size,flags:stream:format=start_time", path});
  SeenMedia media;
  media.status = probe.status;
  media.messages = probe.err;
  Json::Value answer;
  if (!Json::Reader().parse(probe.out, answer)) return media;
  media.streams = answer["streams"];
  media.start = std::atof(answer["format"].get("start_time", "0").asCString());
  std::map<int, std::pair<int, int>> time_bases;
  std::map<std::string, int> first;  // stream of each type
  for (const Json::Value& stream : media.streams) {
    const int index = stream["index"].asInt();
    auto& [num, den] = time_bases[index];
    std::sscanf(stream["time_base"].asCString(), "%d/%d", &num, &den);
    first.emplace(stream["codec_type"].asString(), index);
  }
  for (const Json::Value& packet : answer["packets"]) {
    const int index = packet["stream_index"].asInt();
    const std::string type = packet["codec_type"].asString();
    if (first[type] != index) continue;
    const auto [num, den] = time_bases[index];
    const auto seconds = [&](const char* name, const char* other) {
      const Json::Value& time = packet.isMember(name) ? packet[name] : packet[other];
      return TimestampSeconds(time.asInt64(), num, den);
    };
    if (type == "video" && media.video.empty()) media.timed = packet.isMember("pts");
    const std::string flags = packet["flags"].asString();
    SeenPacket seen = {seconds("pts", "dts"), seconds("dts", "pts"),
                       std::atoi(packet["size"].asCString()), flags.find('K') != std::string::npos,
                       flags.find('D') != std::string::npos};
    (type == "video" ? media.video : media.sound).push_back(seen);
  }
  return media;
}

// Times of the pictures in the order in which a decoder shows them.
inline std::vector<double> ShownTimes(const std::string& path) {
  const ProgramResult probe =
      RunProgram({"/usr/bin/ffprobe", "-v", "error", "-select_streams", "v:0", "-show_entries",
                  "frame=best_effort_timestamp_time", "-of", "csv=p=0", path});
  std::vector<double> times;
  std::istringstream lines(probe.out);
  for (std::string line; std::getline(lines, line);) {
    if (!line.empty()) times.push_back(std::atof(line.c_str()));
  }
  return times;
}

// How alike two films' pictures are, picture by picture: the worst one's peak signal-to-noise ratio
// in decibels.
inline double WorstLikeness(const std::string& path, const std::string& other) {
  const ProgramResult run =
      RunProgram({"/usr/bin/ffmpeg", "-nostdin", "-v", "error", "-i", path, "-i", other, "-lavfi",
                  "[0:v]settb=1/25,setpts=N[a];[1:v]settb=1/25,setpts=N[b];[a][b]psnr=stats_file=-",
                  "-f", "null", "/dev/null"});
  double worst = HUGE_VAL;
  std::istringstream words(run.out);
  for (std::string word; words >> word;) {
    if (word.starts_with("psnr_avg:")) worst = std::min(worst, std::strtod(&word[9], nullptr));
  }
  return run.out.empty() ? 0 : worst;
}

// The whole segments of a folder, by their numbers.
inline std::map<int, SeenMedia> ReadSegments(const std::string& folder) {
  std::map<int, SeenMedia> segments;
  for (const auto& entry : std::filesystem::directory_iterator(folder)) {
    int number = -1;
    std::sscanf(entry.path().filename().c_str(), "slice-%d.ts", &number);
    segments[number] = ReadMedia(entry.path());
  }
  return segments;
}

}  // namespace tarn::test
