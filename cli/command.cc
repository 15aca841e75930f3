#include "command.h"

#include <iterator>

namespace tarncli {
namespace {

struct WordRow {
  const char* word;
  Exit status;
  const char* meaning;
};

constexpr WordRow kWords[] = {
    {"TransSapceNotEnough", Exit::kNoSpace,
     "no data volume has room for the working files (\"tarnvte doctor\" shows the volumes)"},
    {"TransAudioNotSupported", Exit::kRefused,
     "there is no such audio track, or its codec (dts, eac3, truehd) cannot be decoded; choose "
     "another with --audio (\"tarnvte probe\" lists them)"},
    {"TransVideoNotSupported", Exit::kRefused,
     "this machine has no hardware path for this video; choose a software profile"},
    {"TransVideoNotHardwareSupported", Exit::kRefused,
     "the hardware cannot decode this video codec; choose a software profile"},
    {"TransVideoOutOfResolutionCapability", Exit::kRefused,
     "the picture is larger than the hardware can take; choose a software profile"},
    {"TransVideoOutOfProfileCapability", Exit::kRefused,
     "the hardware cannot decode 10-bit video; choose a software profile"},
    {"TransVideoOutOfFramerateCapability", Exit::kRefused,
     "the frame rate is too high for the hardware at this picture size; choose a software profile"},
    {"TransEnableOfflineConverting", Exit::kBusy,
     "an offline conversion is running; try again when it has ended (\"tarnvte registry\" shows "
     "it)"},
    {"TransEnable", Exit::kBusy,
     "as many transcoders as this machine bears are running already (\"tarnvte registry\" lists "
     "them)"},
};

const WordRow* FindWord(const std::string& word) {
  for (const WordRow& row : kWords) {
    if (word == row.word) return &row;
  }
  return nullptr;
}

}  // namespace

const char kExitStatusHelp[] =
    "Exit status: 0 success, 1 unexpected failure, 2 wrong usage, 3 a file is missing, unreadable\n"
    "or not a video, 4 refused: not within this machine's capability, 5 refused: too much is\n"
    "running, 6 no space, 7 the transcoder failed, 8 segments of\n"
    "different runs differ, 130 or 143 interrupted.";

Failure RefusedBy(const std::string& word, const std::string& subject) {
  if (const WordRow* row = FindWord(word)) {
    return {row->status, subject + ": " + word + ": " + row->meaning, word};
  }
  const std::string reason =
      word.empty() ? "the engine refused the stream (--verbose shows its log)" : word;
  return {Exit::kFailure, subject + ": " + reason, word};
}

std::string ExplainWord(const std::string& word) {
  const WordRow* row = FindWord(word);
  return row != nullptr ? row->meaning : "";
}

std::string FailureWord(const Failure& failure) {
  if (!failure.word.empty()) return failure.word;
  static constexpr const char* kByStatus[] = {"",        "Failure", "Usage",   "File",
                                              "Refused", "Busy",    "NoSpace", "Transcoder"};
  const auto index = static_cast<size_t>(failure.status);
  return index < std::size(kByStatus) ? kByStatus[index] : "Failure";
}

}  // namespace tarncli
