// Named places where a test may make a process wait or die, to hit the window between two steps.
#pragma once

namespace tarn {

using FaultHook = void (*)(const char* point);
void SetFaultHook(FaultHook hook);

// Does nothing unless a test set a hook.
void FaultPoint(const char* point);

}  // namespace tarn
