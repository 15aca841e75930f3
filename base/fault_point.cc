#include "base/fault_point.h"

namespace tarn {
namespace {

FaultHook g_hook = nullptr;

}  // namespace

void SetFaultHook(FaultHook hook) { g_hook = hook; }

void FaultPoint(const char* point) {
  if (g_hook != nullptr) g_hook(point);
}

}  // namespace tarn
