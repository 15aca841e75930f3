// The machine-wide registry of running transcoders, "/tmp/Reelbay/enabled".
//
// An object is one check-and-register step: it holds the registry's exclusive lock from
// construction to destruction, and writes the file when it is destroyed. Keep it short-lived; one
// thread. Format: docs/formats/load-registry.md.
#pragma once

#include <json/value.h>

#include "tarnvte/export.h"
#include "tarnvte/lock.h"

namespace LibReelbay {

class TARNVTE_EXPORT TransLoading : public Lock {
 public:
  // Locks the registry (waiting for at most 60 s), reads it and drops the entries of processes that
  // are gone. A failure is logged; without the lock every question that needs it is answered with
  // false.
  TransLoading();
  // Writes the entries back (mode 0666) and unlocks, when the lock was obtained.
  ~TransLoading() override;

  // One more transcoder of this kind may start now. Always true while nothing else runs (for
  // hardware: on a platform that has it). False when the registry is not locked.
  bool TransEnable(bool hardware);
  // One more software (hardware) transcoder is within the platform's limit, which may be 0: these
  // make no exception for the first one. Neither asks for the lock. Hardware: false on a platform
  // that has none.
  bool SoftwareTransEnable() const;
  bool HardwareTransEnable() const;
  // The limit alone, of one kind or the other.
  bool CheckTransEnable(bool hardware) const;

  // Registers a process, as a hardware or software transcoder and, with `offline`, as an offline
  // conversion. Checks no limit. False when the registry is not locked.
  bool SaveTransPID(int pid, bool hardware, bool offline);
  // Unregisters a process; true also when it was not registered. False when not locked.
  bool RemoveTransPIDLock(int pid);

  // Some registered process is an offline conversion. (Spelling kept: callers use it.)
  bool IsOffineConverting() const;
  // Some registered process uses the hardware path.
  bool IsHardwareTranscoding() const;

  // Reads the file and appends its live entries to those held; the constructor has done so once.
  // False, with nothing appended, when it is missing or not a registry.
  bool ReadAndCheckAlive();

 protected:
  Json::Value entries;
  unsigned software_limit;
  unsigned hardware_limit;
};

// What this machine can do at all: transcode, remux (always true), transcode in hardware. Sets all
// three. On an OMX model it runs the factory loader to see whether the box is in test mode.
TARNVTE_EXPORT void GetMachineTranscodeAndRemux(bool& transcode, bool& remux, bool& hardware);

// The engine must use `ffmpeg` and never GStreamer: true except on Monaco and the OMX models.
TARNVTE_EXPORT bool ForceFFmpegTranscoding();

}  // namespace LibReelbay
