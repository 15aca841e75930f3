// An exclusive flock(2) on a file, held for an object's lifetime.
#pragma once

#include <string>

#include "tarnvte/export.h"

namespace LibReelbay {

class TARNVTE_EXPORT Lock {
 public:
  // Creates the file (mode 0644) and its directory (0755) where missing, and locks it. With
  // `blocking` the wait for another holder ends after 60 s as a failure; without, a held lock fails
  // at once. IsLockSucess tells.
  Lock(const std::string& path, bool blocking);
  virtual ~Lock();
  Lock(const Lock&) = delete;
  Lock& operator=(const Lock&) = delete;

  // Opens and locks; true when this object now holds the lock.
  bool LockFile();
  // Unlocks and closes.
  void UnlockFile();
  // The lock is held. (Spelling kept: callers use it.)
  bool IsLockSucess() const;

 protected:
  int fd = -1;
  std::string path;
  bool blocking;
  bool locked = false;
};

}  // namespace LibReelbay
