// An exclusive flock(2) on a file, held for an object's lifetime.
//
// Excludes other processes, and other objects of this one; one thread per object. Nothing throws.
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

  // Opens and locks, as the constructor does; true when this object now holds the lock. False when
  // `path` has no "/" or its directory cannot be made (both logged), the file cannot be opened or
  // is a link, or another holder did not let go.
  bool LockFile();
  // Unlocks and closes; nothing when it is not held.
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
