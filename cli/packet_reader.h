// Packets of a media file, read by a program that shares nothing with the engine.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "interrupts.h"

namespace tarncli {

struct FilePacket {
  int stream = 0;  // position in the file
  bool video = false;
  bool audio = false;
  bool key = false;
  bool discarded = false;  // the container says that it is not to be shown
  bool has_pts = false;
  double pts = 0;       // seconds
  double dts = 0;       // pts where the file has none
  double duration = 0;  // 0 where the file has none
  uint64_t size = 0;
};

struct FileReading {
  double start_time = 0;  // of the container, seconds; 0 where the file has none
  std::string complaint;  // the first thing that was wrong with the file; empty: nothing
};

// Hands every packet to `take`, as they lie in the file. Throws Failure when the program cannot be
// started, and Interrupted.
FileReading ReadPackets(const std::string& path, const Interrupts& interrupts,
                        const std::function<void(const FilePacket&)>& take);

// One line of the program's output, in its "compact" form. False when it is not about a packet.
bool ParsePacket(const std::string& line, FilePacket& packet);

}  // namespace tarncli
