// What the bare commands write: a folder for their files, and how long one of these takes.
#pragma once

#include <string>

#include "bench/program.h"

namespace tarnbench {

inline constexpr char kBareFolder[] = "/volume1/bare";

// kBareFolder, empty, on the volume that the engine's own files lie on; removed at the end.
class BareFolder {
 public:
  BareFolder();
  ~BareFolder();
  BareFolder(const BareFolder&) = delete;
  BareFolder& operator=(const BareFolder&) = delete;
};

// How long a command takes until kBareFolder holds a file whose path begins like this
// ("slice-00001.ts", "FOLDER/NAME"). The folder is made for it, and the command is ended then.
double SecondsToFile(const Words& argv, const std::string& begin);

// The same for a command that starts no others, while this process has further children.
double SecondsToFileOfOne(const Words& argv, const std::string& begin);

}  // namespace tarnbench
