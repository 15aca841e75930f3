#include "tests/smooth/encoder_rows.h"

#include <json/json.h>
#include <unistd.h>

#include <fstream>

#include "base/paths.h"
#include "tarnvte/vteutils.h"
#include "tests/transcoder/run_program.h"
#include "transcoder/ffmpeg_frontend/smooth.h"
#include "vte/smooth/manifest.h"

namespace tarn::test {
namespace {

using LibTarnVTE::OutputSize;
using LibTarnVTE::ShapeClass;
using Words = std::vector<std::string>;

constexpr char kEncoded[] = "/tmp/encoded.nut";

Json::Value Profiles() {
  Json::Value profiles;
  std::ifstream file(TARN_TEST_DATA "/../profiles/smooth.json");
  file >> profiles;
  return profiles;
}

Words ProfileOf(const std::string& key) {
  return LibTarnVTE::StringExplode(Profiles()[key].asString(), " \n");
}

std::string SizeName(const Words& profile) {
  for (size_t i = 1; i < profile.size(); ++i) {
    if (profile[i - 1] == "-s") return profile[i];
  }
  return "";
}

// The front end's own encoder command for a run from the start.
Words EncoderCommand(const std::string& film, const EncodedRow& row, std::string& error) {
  Words argv = {paths::kFFmpeg41, "-ss", "0.000", "-i", film};
  std::string last;
  for (const std::string& word : ProfileOf(row.profile_key)) {
    argv.push_back(last == "-s" ? std::to_string(row.width) + "x" + std::to_string(row.height)
                                : word);
    last = word;
  }
  argv.insert(argv.end(), {"-fragment_length", "5", "-seek_time", "0", "-t", "1"});
  if (row.hardware) argv.insert(argv.end(), {"-filled", "1"});
  argv.insert(argv.end(), {"-map", "0:0", "-map", "0:1", "/volume1/smooth"});
  ffmpeg::CommandLine line;
  if (!ffmpeg::Parse(argv, line, error)) return {};
  return ffmpeg::SmoothEncoderCommand(line, error);
}

int NalType(const std::string& stream, size_t after_start_code) {
  return after_start_code < stream.size() ? stream[after_start_code] & 0x1f : -1;
}

// Everything before the first NAL unit that is neither a sequence nor a picture parameter set.
std::string ParameterSets(const std::string& stream) {
  const std::string code("\0\0\1", 3);
  constexpr int kSequence = 7, kPicture = 8;
  for (size_t at = stream.find(code); at != std::string::npos; at = stream.find(code, at + 3)) {
    const int type = NalType(stream, at + 3);
    if (type == kSequence || type == kPicture) continue;
    // The start code before a slice may have a zero more.
    const bool four = at > 0 && stream[at - 1] == '\0' && NalType(stream, at + 3) != kPicture;
    return stream.substr(0, four ? at - 1 : at);
  }
  return "";
}

std::string Hexadecimal(const std::string& bytes) {
  constexpr char kDigits[] = "0123456789abcdef";
  std::string text;
  for (const char c : bytes) {
    const auto byte = static_cast<unsigned char>(c);
    text += kDigits[byte >> 4];
    text += kDigits[byte & 15];
  }
  return text;
}

}  // namespace

std::vector<EncodedRow> ListEncoders() {
  std::vector<EncodedRow> rows;
  std::ifstream file(TARN_TEST_DATA "/../profiles/smooth.json");
  for (std::string line; std::getline(file, line);) {
    // In the order of the file, which a JSON reader does not keep.
    const size_t begin = line.find("\"smooth");
    if (begin == std::string::npos) continue;
    const std::string key = line.substr(begin + 1, line.find('"', begin + 1) - begin - 1);
    const Words profile = ProfileOf(key);
    for (const ShapeClass shape : {ShapeClass::k4To3, ShapeClass::k16To9, ShapeClass::k235To1}) {
      const auto size = OutputSize(SizeName(profile), shape);
      if (!size) continue;
      const bool hardware = key.find("_h264_smd_") != std::string::npos;
      rows.push_back({key, hardware, size->width, size->height, "", ""});
    }
  }
  return rows;
}

void Encode(const std::string& film, EncodedRow& row) {
  const Words command = EncoderCommand(film, row, row.error);
  if (command.empty()) return;
  const ProgramResult encoded = RunProgram(command);
  std::ofstream(kEncoded, std::ios::binary) << encoded.out;
  const ProgramResult stream =
      RunProgram({"ffmpeg", "-nostdin", "-v", "error", "-i", kEncoded, "-map", "0:v", "-c", "copy",
                  "-bsf:v", "dump_extra", "-f", "h264", "-"});
  row.codec_private_data = Hexadecimal(ParameterSets(stream.out));
  if (encoded.status != 0 || row.codec_private_data.empty()) {
    row.error = "the encoder failed: " + encoded.err + stream.err;
  }
}

}  // namespace tarn::test
