#include "base/run_as.h"

#include <unistd.h>

#include "base/log.h"

namespace tarn {
namespace {

int SetUser(unsigned id) { return setresuid(static_cast<uid_t>(-1), id, static_cast<uid_t>(-1)); }
int SetGroup(unsigned id) { return setresgid(static_cast<gid_t>(-1), id, static_cast<gid_t>(-1)); }

SetEffectiveId g_set_user = SetUser;
SetEffectiveId g_set_group = SetGroup;
GetEffectiveId g_get_user = geteuid;
GetEffectiveId g_get_group = getegid;

// The group can only be changed while the user is root: first on the way down, last on the way up.
bool Switch(uid_t uid, gid_t gid) {
  if (g_get_user() == uid && g_get_group() == gid) return true;
  if (g_get_user() == 0) return g_set_group(gid) == 0 && g_set_user(uid) == 0;
  return g_set_user(uid) == 0 && g_set_group(gid) == 0;
}

}  // namespace

void SetIdCalls(SetEffectiveId set_user, SetEffectiveId set_group, GetEffectiveId get_user,
                GetEffectiveId get_group) {
  g_set_user = set_user != nullptr ? set_user : SetUser;
  g_set_group = set_group != nullptr ? set_group : SetGroup;
  g_get_user = get_user != nullptr ? get_user : geteuid;
  g_get_group = get_group != nullptr ? get_group : getegid;
}

RunAsRoot::RunAsRoot(const char* unit, int line)
    : unit_(unit), line_(line), uid_(g_get_user()), gid_(g_get_group()), switched_(Switch(0, 0)) {
  if (switched_) return;
  Log(LOG_AUTH | LOG_ERR, unit_, line_, "ERROR: %s(%d, %d)", "IF_RUN_AS", 0, 0);
  // The user may have changed before the group failed: the scope must not run half switched.
  SwitchBack();
}

RunAsRoot::~RunAsRoot() {
  if (switched_) SwitchBack();
}

void RunAsRoot::SwitchBack() {
  if (Switch(uid_, gid_)) return;
  Log(LOG_AUTH | LOG_CRIT, unit_, line_, "ERROR: ~%s(%d, %d)", "IF_RUN_AS", static_cast<int>(uid_),
      static_cast<int>(gid_));
}

}  // namespace tarn
