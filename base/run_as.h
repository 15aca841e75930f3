// A scope with the effective user and group switched to root.
//
// The change is the whole process's; only single-threaded code may use it. Supplementary groups
// stay.
#pragma once

#include <sys/types.h>

namespace tarn {

class RunAsRoot {
 public:
  // Logs under the caller's unit and line: "ERROR: IF_RUN_AS(0, 0)" when the switch fails (priority
  // 35, authorisation facility), "ERROR: ~IF_RUN_AS(uid, gid)" when the way back fails (34).
  RunAsRoot(const char* unit, int line);
  ~RunAsRoot();
  RunAsRoot(const RunAsRoot&) = delete;
  RunAsRoot& operator=(const RunAsRoot&) = delete;

  // The scope runs as root.
  explicit operator bool() const { return switched_; }

 private:
  void SwitchBack();

  const char* unit_;
  int line_;
  uid_t uid_;
  gid_t gid_;
  bool switched_;
};

// Tests replace the system calls that set the effective id (0 on success) and tell it. Null
// restores the real one.
using SetEffectiveId = int (*)(unsigned id);
using GetEffectiveId = unsigned (*)();
void SetIdCalls(SetEffectiveId set_user, SetEffectiveId set_group,
                GetEffectiveId get_user = nullptr, GetEffectiveId get_group = nullptr);

}  // namespace tarn

// Declares `name`, a RunAsRoot that logs with this file's unit and this line.
#define IF_RUN_AS(name) ::tarn::RunAsRoot name(kLogUnit, __LINE__)
