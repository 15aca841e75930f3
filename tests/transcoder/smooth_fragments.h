// Smooth Streaming fragments as a client reads them, and the command lines that make them.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "base/paths.h"
#include "base/text.h"
#include "tests/support/host_files.h"
#include "tests/transcoder/run_program.h"

namespace tarn::test {

inline constexpr int64_t kSecond = 10'000'000;  // in 100 ns
inline constexpr int64_t kFragmentLength = 5 * kSecond;

// --- command lines ------------------------------------------------------------------------------

struct SmoothProfile {
  std::vector<std::string> words;
  int video_bit_rate;
  int audio_bit_rate;
  int rate_num, rate_den;
  // What the manifest foretells, without start codes.
  std::string sequence_set;
  std::string picture_set;
};

inline std::vector<std::string> WordsOf(const std::string& text) {
  std::vector<std::string> words;
  for (size_t start = 0; start < text.size();) {
    const size_t end = std::min(text.find(' ', start), text.size());
    words.push_back(text.substr(start, end - start));
    start = end + 1;
  }
  return words;
}

// The words of two shipped profiles with one size.
inline const SmoothProfile kSmoothSoftware = {
    WordsOf("-vcodec libx264 -preset ultrafast -profile:v baseline -level:v 30 -crf 25 -vb 320k "
            "-maxrate 320k -bufsize 640k -pix_fmt yuv420p -vf setsar=0 -s 750x320 -r 15 -g 1000 "
            "-force_key_frames expr:gte(t,n_forced*5) -acodec aac -ab 40k -ar 48000 -ac 2 "
            "-copypriorss:a 0 -f smoothstreaming"),
    320000,
    40000,
    15,
    1,
    "6742c01eda02f0a7ae10000003001000000301e0f162ea",
    "68ce1f20"};
inline const SmoothProfile kSmoothPlatform = {
    WordsOf("-vcodec h264_smd -vb 500k -pix_fmt yuv420p -vf setsar=0 -s 750x320 -r 24000/1001 "
            "-g 1000 -force_key_frames expr:gte(t,n_forced*5) -acodec libfaac -ab 64k -ar 48000 "
            "-ac 2 -copypriorss:a 0 -f smoothstreaming"),
    500000,
    64000,
    24000,
    1001,
    "6742c029da02f0a7ae1000003e90000bb800f162ea",
    "68ce1f20"};

struct SmoothCommand {
  std::string input;
  std::string output = "/volume1/smooth";
  SmoothProfile profile = kSmoothSoftware;
  int seek = 0;
  std::vector<std::string> maps = {"0:0", "0:1"};
  std::vector<std::string> input_options = {};

  std::vector<std::string> Words() const {
    std::vector<std::string> words = {paths::kFFmpeg41, "-ss",
                                      FormatMillisecondsAsSeconds(seek * 1000)};
    const auto append = [&words](const std::vector<std::string>& more) {
      words.insert(words.end(), more.begin(), more.end());
    };
    append(input_options);
    append({"-i", input});
    append(profile.words);
    append({"-fragment_length", "5", "-seek_time", std::to_string(seek)});
    append({"-max_muxing_queue_size", "1024"});
    for (const std::string& map : maps) append({"-map", map});
    append({output});
    return words;
  }
  std::string VideoFolder() const { return Folder(profile.video_bit_rate); }
  std::string AudioFolder() const { return Folder(profile.audio_bit_rate); }
  std::string Folder(int bit_rate) const {
    return output + "/QualityLevels(" + std::to_string(bit_rate) + ")";
  }
};

// --- boxes --------------------------------------------------------------------------------------

struct SeenSample {
  int64_t time = 0;  // 100 ns
  int64_t duration = 0;
  bool key = false;
  std::string data;
};

struct SeenFragment {
  std::string error;  // empty: the file is what a client expects, byte by byte
  uint32_t sequence = 0;
  uint32_t track = 0;
  int64_t time = 0;
  int64_t duration = 0;
  std::vector<SeenSample> samples;
  std::string bytes;

  int64_t end() const { return time + duration; }
};

class BoxReader {
 public:
  explicit BoxReader(std::string_view bytes) : bytes_(bytes) {}
  bool ok() const { return ok_; }
  bool empty() const { return bytes_.empty(); }
  size_t size() const { return bytes_.size(); }

  uint64_t Number(size_t bytes) {
    if (bytes_.size() < bytes) return Fail();
    uint64_t value = 0;
    for (size_t i = 0; i < bytes; ++i) value = value << 8 | static_cast<unsigned char>(bytes_[i]);
    bytes_.remove_prefix(bytes);
    return value;
  }
  std::string_view Text(size_t size) {
    if (bytes_.size() < size) {
      Fail();
      return {};
    }
    const std::string_view text = bytes_.substr(0, size);
    bytes_.remove_prefix(size);
    return text;
  }
  // The content of the next box, which has to be of this type.
  BoxReader Box(std::string_view type) {
    const uint64_t size = Number(4);
    if (Text(4) != type || size < 8) Fail();
    BoxReader content(Text(ok_ ? size - 8 : 0));
    content.ok_ = ok_;
    return content;
  }

 private:
  int Fail() {
    ok_ = false;
    return 0;
  }

  std::string_view bytes_;
  bool ok_ = true;
};

inline SeenFragment ParseFragment(std::string bytes) {
  SeenFragment seen;
  seen.bytes = std::move(bytes);
  BoxReader file(seen.bytes);
  BoxReader moof = file.Box("moof");
  const size_t moof_size = moof.size() + 8;
  BoxReader mfhd = moof.Box("mfhd");
  const uint64_t mfhd_flags = mfhd.Number(4);
  seen.sequence = static_cast<uint32_t>(mfhd.Number(4));
  BoxReader traf = moof.Box("traf");
  BoxReader tfhd = traf.Box("tfhd");
  const uint64_t tfhd_flags = tfhd.Number(4);
  seen.track = static_cast<uint32_t>(tfhd.Number(4));
  const uint64_t default_flags = tfhd.Number(4);
  BoxReader tfdt = traf.Box("tfdt");
  const uint64_t tfdt_flags = tfdt.Number(4);
  const uint64_t decode_time = tfdt.Number(8);
  BoxReader trun = traf.Box("trun");
  BoxReader tfxd = traf.Box("uuid");
  const std::string_view id = tfxd.Text(16);
  const uint64_t tfxd_flags = tfxd.Number(4);
  seen.time = static_cast<int64_t>(tfxd.Number(8));
  seen.duration = static_cast<int64_t>(tfxd.Number(8));
  BoxReader mdat = file.Box("mdat");

  const bool video = seen.track == 1;
  const uint64_t trun_flags = trun.Number(4);
  const uint64_t count = trun.Number(4);
  const uint64_t offset = trun.Number(4);
  int64_t time = seen.time;
  for (uint64_t i = 0; i < count && trun.ok() && mdat.ok(); ++i) {
    SeenSample sample;
    sample.time = time;
    sample.duration = static_cast<int64_t>(trun.Number(4));
    sample.data = mdat.Text(trun.Number(4));
    const uint64_t flags = video ? trun.Number(4) : default_flags;
    sample.key = flags == 0x02000000;
    if (!sample.key && flags != 0x01010000) seen.error = "odd sample flags";
    time += sample.duration;
    seen.samples.push_back(sample);
  }
  const auto expect = [&](bool condition, const char* what) {
    if (!condition && seen.error.empty()) seen.error = what;
  };
  for (const BoxReader* box : {&file, &moof, &mfhd, &traf, &tfhd, &tfdt, &trun, &tfxd, &mdat}) {
    expect(box->ok(), "a box is missing, or its content");
    expect(box->empty(), "something is left over");
  }
  expect(mfhd_flags == 0 && tfhd_flags == 0x20, "mfhd or tfhd");
  expect(tfdt_flags == 0x01000000 && decode_time == static_cast<uint64_t>(seen.time), "tfdt");
  expect(trun_flags == (video ? 0x701 : 0x301), "trun");
  expect(offset == moof_size + 8, "the samples lie elsewhere");
  expect(id == "\x6d\x1d\x9b\x05\x42\xd5\x44\xe6\x80\xe2\x14\x1d\xaf\xf7\x57\xb2", "uuid");
  expect(tfxd_flags == 0x01000000, "tfxd");
  expect(!seen.samples.empty(), "no samples");
  expect(time == seen.end(), "the durations do not make up the fragment's");
  return seen;
}

// Types of the NAL units of a sample, or nothing where their lengths do not make it up.
inline std::vector<int> NalTypes(const SeenSample& sample) {
  std::vector<int> types;
  BoxReader reader(sample.data);
  while (reader.ok() && !reader.empty()) {
    const std::string_view unit = reader.Text(reader.Number(4));
    if (unit.empty()) return {};
    types.push_back(unit[0] & 0x1F);
  }
  return reader.ok() ? types : std::vector<int>();
}

inline std::string FragmentName(const std::string& type, int number) {
  return "Fragments(" + type + "=" + std::to_string(number * kFragmentLength) + ")";
}

// A track's fragments, by number; any other file in the folder is a failure. Audio and video of one
// bit rate share a folder.
inline std::map<int, SeenFragment> ReadFragments(const std::string& folder,
                                                 const std::string& type) {
  std::map<int, SeenFragment> fragments;
  for (const auto& entry : std::filesystem::directory_iterator(folder)) {
    const std::string name = entry.path().filename();
    long long start = -1;
    std::sscanf(name.c_str(), ("Fragments(" + type + "=%lld)").c_str(), &start);
    const int number = static_cast<int>(start / kFragmentLength);
    if (name != FragmentName(type, number)) {
      ADD_FAILURE() << "no fragment of " << type << ": " << name;
      continue;
    }
    fragments[number] = ParseFragment(ReadText(entry.path()));
  }
  return fragments;
}

// --- initialisation -----------------------------------------------------------------------------

inline std::string FromHex(const std::string& hex) {
  std::string bytes;
  for (size_t i = 0; i + 1 < hex.size(); i += 2) {
    bytes.push_back(static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16)));
  }
  return bytes;
}

inline std::string Big(uint64_t value, int bytes) {
  std::string text;
  for (int i = bytes - 1; i >= 0; --i) {
    text.push_back(i < 8 ? static_cast<char>(value >> (8 * i)) : '\0');
  }
  return text;
}

inline std::string MakeBox(const std::string& type, const std::string& content) {
  return Big(content.size() + 8, 4) + type + content;
}

// The start of a file of one track, as clients make it from the manifest (ISO/IEC 14496-12, -14 and
// -15).
inline std::string InitSegment(const SmoothProfile& profile, bool video, int width, int height) {
  const std::string matrix =
      Big(0x10000, 4) + Big(0, 12) + Big(0x10000, 4) + Big(0, 12) + Big(0x40000000, 4);
  const uint32_t track = video ? 1 : 2;
  const std::string zero = Big(0, 4);
  std::string entry = Big(0, 6) + Big(1, 2);
  if (video) {
    const std::string sequence = FromHex(profile.sequence_set);
    const std::string picture = FromHex(profile.picture_set);
    entry += Big(0, 16) + Big(width, 2) + Big(height, 2) + Big(0x480000, 4) + Big(0x480000, 4) +
             zero + Big(1, 2) + std::string(32, '\0') + Big(24, 2) + Big(0xFFFF, 2);
    entry += MakeBox("avcC", Big(1, 1) + sequence.substr(1, 3) + Big(0xFF, 1) + Big(0xE1, 1) +
                                 Big(sequence.size(), 2) + sequence + Big(1, 1) +
                                 Big(picture.size(), 2) + picture);
    entry = MakeBox("avc1", entry);
  } else {
    const std::string config = FromHex("1190");
    const std::string decoder =
        Big(0x40, 1) + Big(0x15, 1) + Big(0, 11) + Big(5, 1) + Big(config.size(), 1) + config;
    const std::string stream = Big(0, 3) + Big(4, 1) + Big(decoder.size(), 1) + decoder +
                               Big(6, 1) + Big(1, 1) + Big(2, 1);
    entry += Big(0, 8) + Big(2, 2) + Big(16, 2) + zero + Big(48000u << 16, 4);
    entry += MakeBox("esds", zero + Big(3, 1) + Big(stream.size(), 1) + stream);
    entry = MakeBox("mp4a", entry);
  }
  std::string stbl = MakeBox("stsd", zero + Big(1, 4) + entry);
  for (const char* type : {"stts", "stsc", "stco"}) stbl += MakeBox(type, zero + zero);
  stbl += MakeBox("stsz", zero + zero + zero);
  const std::string data =
      MakeBox("dinf", MakeBox("dref", zero + Big(1, 4) + MakeBox("url ", Big(1, 4))));
  const std::string header =
      video ? MakeBox("vmhd", Big(1, 4) + Big(0, 8)) : MakeBox("smhd", zero + zero);
  const std::string media =
      MakeBox("mdhd", zero + zero + zero + Big(kSecond, 4) + zero + Big(0x55C4, 2) + Big(0, 2)) +
      MakeBox("hdlr", zero + zero + (video ? "vide" : "soun") + Big(0, 13)) +
      MakeBox("minf", header + data + MakeBox("stbl", stbl));
  const std::string tkhd = Big(3, 4) + zero + zero + Big(track, 4) + zero + zero + Big(0, 8) +
                           Big(0, 4) + Big(video ? 0 : 0x100, 2) + Big(0, 2) + matrix +
                           Big(video ? width << 16 : 0, 4) + Big(video ? height << 16 : 0, 4);
  const std::string mvhd = zero + zero + zero + Big(kSecond, 4) + zero + Big(0x10000, 4) +
                           Big(0x100, 2) + Big(0, 10) + matrix + Big(0, 24) + Big(3, 4);
  const std::string trex = zero + Big(track, 4) + Big(1, 4) + Big(0, 12);
  return MakeBox("ftyp", "iso6" + zero + "iso6") +
         MakeBox("moov", MakeBox("mvhd", mvhd) +
                             MakeBox("trak", MakeBox("tkhd", tkhd) + MakeBox("mdia", media)) +
                             MakeBox("mvex", MakeBox("trex", trex)));
}

// Writes what a client feeds to its decoder.
inline void WriteTrack(const std::string& path, const SmoothProfile& profile, bool video,
                       const std::map<int, SeenFragment>& fragments) {
  std::string bytes = InitSegment(profile, video, 750, 320);
  for (const auto& [number, fragment] : fragments) bytes += fragment.bytes;
  WriteText(path, bytes);
}

}  // namespace tarn::test
