#include <cerrno>

#include "base/process.h"
#include "tarnutil/qlibc.h"

int QLIBCProcForkEx(int flags) {
  if (flags == QLIBC_FORK_DETACHED) return tarn::ForkDetached();
  errno = EINVAL;
  return -1;
}

int QLIBCProcForkChildNoWait(void) { return QLIBCProcForkEx(QLIBC_FORK_DETACHED); }
