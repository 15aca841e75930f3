#include "tests/analyze/media_files.h"

#include <gtest/gtest.h>
#include <json/value.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "base/media_time.h"
#include "tests/metadata/ffprobe.h"

namespace tarn::test {
namespace {

const Json::Value* FindVideo(const Json::Value& streams) {
  for (const Json::Value& stream : streams) {
    if (stream["codec_type"] == "video" && stream["disposition"]["attached_pic"] == 0) {
      return &stream;
    }
  }
  return nullptr;
}

Json::Value Packets(const std::string& path, int stream) {
  std::vector<std::string> arguments = {"/usr/bin/ffprobe",
                                        "-v",
                                        "quiet",
                                        "-show_entries",
                                        "packet=pts,dts,duration,flags",
                                        "-of",
                                        "json",
                                        "-select_streams",
                                        std::to_string(stream)};
  // As in Ffprobe.
  if (path.ends_with(".ts")) arguments.insert(arguments.end(), {"-scan_all_pmts", "0"});
  arguments.push_back(path);
  Json::Value answer;
  Json::Reader().parse(OutputOf(arguments), answer);
  return answer["packets"];
}

uint32_t BigEndian(const std::string& bytes, size_t at) {
  uint32_t value = 0;
  for (size_t i = 0; i < 4; ++i) value = value << 8 | static_cast<uint8_t>(bytes.at(at + i));
  return value;
}

void PutBigEndian(std::string& bytes, size_t at, uint32_t value) {
  for (size_t i = 0; i < 4; ++i) bytes.at(at + i) = static_cast<char>(value >> (24 - 8 * i));
}

uint32_t LittleEndian(const std::string& bytes, size_t at) {
  return __builtin_bswap32(BigEndian(bytes, at));
}

void PutLittleEndian(std::string& bytes, size_t at, uint32_t value) {
  PutBigEndian(bytes, at, __builtin_bswap32(value));
}

// A size of Matroska: as many leading zero bits as further bytes.
uint64_t TakeSize(const std::string& bytes, size_t& at) {
  const auto first = static_cast<uint8_t>(bytes.at(at++));
  int more = 0;
  while (more < 7 && (first & (0x80 >> more)) == 0) ++more;
  uint64_t value = first & (0x7f >> more);
  while (more-- > 0) value = value << 8 | static_cast<uint8_t>(bytes.at(at++));
  return value;
}

constexpr char kCuePoint = '\xbb';
constexpr char kVoid = '\xec';

std::vector<size_t> CuePositions(const std::string& bytes) {
  std::vector<size_t> positions;
  size_t at = bytes.rfind("\x1c\x53\xbb\x6b");
  if (at == std::string::npos) return positions;
  at += 4;
  const uint64_t size = TakeSize(bytes, at);
  const size_t end = at + size;
  while (at < end) {
    if (bytes.at(at) == kCuePoint) positions.push_back(at);
    ++at;  // every child here has an ID of one byte
    const uint64_t child = TakeSize(bytes, at);
    at += child;
  }
  return positions;
}

}  // namespace

std::string Media(const std::string& name) { return std::string(TARN_TEST_MEDIA "/") + name; }

PacketFacts AskFfprobe(const std::string& path) {
  PacketFacts facts;
  const Json::Value answer = Ffprobe(path);
  const Json::Value* video = FindVideo(answer["streams"]);
  int num = 0, den = 0;
  if (video == nullptr ||
      std::sscanf((*video)["time_base"].asCString(), "%d/%d", &num, &den) != 2) {
    ADD_FAILURE() << path << " has no video";
    return facts;
  }
  int64_t end = INT64_MIN;
  for (const Json::Value& packet : Packets(path, (*video)["index"].asInt())) {
    const char* key = packet.isMember("pts") ? "pts" : "dts";
    const int64_t time = packet[key].asInt64();
    if (packet.isMember(key)) end = std::max(end, time + packet["duration"].asInt64());
    if (packet["flags"].asString().find('K') == std::string::npos) continue;
    EXPECT_TRUE(packet.isMember(key)) << path;
    facts.keyframes.push_back(TimestampSeconds(time, num, den));
  }
  facts.end = TimestampSeconds(end, num, den);
  return facts;
}

std::string ReadFile(const std::string& path) {
  std::ostringstream bytes;
  bytes << std::ifstream(path, std::ios::binary).rdbuf();
  return bytes.str();
}

void WriteFile(const std::string& path, const std::string& bytes) {
  std::filesystem::create_directories(std::filesystem::path(path).parent_path());
  std::ofstream file(path, std::ios::binary);
  file << bytes;
  EXPECT_TRUE(file.flush()) << path;
}

std::string WithoutCues(std::string bytes, const std::vector<size_t>& numbers) {
  const std::vector<size_t> positions = CuePositions(bytes);
  for (const size_t number : numbers) bytes.at(positions.at(number)) = kVoid;
  return bytes;
}

size_t CountCues(const std::string& bytes) { return CuePositions(bytes).size(); }

std::string WithoutBlockMarks(std::string bytes) {
  constexpr char kSimpleBlock = '\xa3';
  size_t at = 0;
  while ((at = bytes.find("\x1f\x43\xb6\x75", at)) != std::string::npos) {
    at += 4;
    const uint64_t size = TakeSize(bytes, at);
    for (const size_t end = at + size; at < end;) {
      const bool block = bytes.at(at++) == kSimpleBlock;
      const uint64_t child = TakeSize(bytes, at);
      constexpr size_t kFlags = 3;  // behind the track and the time
      if (block) bytes.at(at + kFlags) &= 0x7f;
      at += child;
    }
  }
  return bytes;
}

std::vector<uint32_t> SyncSamples(const std::string& bytes) {
  const size_t table = bytes.find("stss");
  std::vector<uint32_t> samples(BigEndian(bytes, table + 8));
  for (size_t i = 0; i < samples.size(); ++i) samples[i] = BigEndian(bytes, table + 12 + 4 * i);
  return samples;
}

std::string WithSyncSamples(std::string bytes, const std::vector<uint32_t>& samples) {
  const size_t table = bytes.find("stss");
  EXPECT_LE(samples.size(), SyncSamples(bytes).size()) << "no room for more";
  PutBigEndian(bytes, table + 8, static_cast<uint32_t>(samples.size()));
  for (size_t i = 0; i < samples.size(); ++i) PutBigEndian(bytes, table + 12 + 4 * i, samples[i]);
  return bytes;
}

std::string WithCoverFirst(std::string bytes) {
  const size_t movie = bytes.rfind("moov") + 4;
  const size_t end = movie - 8 + BigEndian(bytes, movie - 8);
  size_t first_track = 0;
  for (size_t at = movie; at < end; at += BigEndian(bytes, at)) {
    const std::string type = bytes.substr(at + 4, 4);
    if (type == "trak" && first_track == 0) first_track = at;
    if (type != "udta") continue;
    const std::string box = bytes.substr(at, BigEndian(bytes, at));
    bytes.erase(at, box.size());
    return bytes.insert(first_track, box);
  }
  ADD_FAILURE() << "no cover";
  return bytes;
}

std::string WithEveryAviMark(std::string bytes) {
  constexpr uint32_t kKeyframe = 0x10;
  const size_t index = bytes.rfind("idx1") + 8;
  const size_t end = index + LittleEndian(bytes, index - 4);
  for (size_t at = index; at + 16 <= end; at += 16) {
    if (bytes.compare(at, 4, "00dc") == 0) PutLittleEndian(bytes, at + 4, kKeyframe);
  }
  return bytes;
}

}  // namespace tarn::test
