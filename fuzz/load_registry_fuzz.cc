// The load registry: whatever the file holds, one opening leaves a list of live processes.
#include <sys/stat.h>
#include <tarnutil/qlibc.h>
#include <unistd.h>

#include "base/paths.h"
#include "fuzz/fuzz_input.h"
#include "host/json_text.h"
#include "tarnvte/trans_loading.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::DropLogLines();
  mkdir(tarn::paths::kTmpRoot, 0755);
  fuzz::PutFile(tarn::paths::kLoadRegistry, fuzz::Text(data, size));
  {
    LibReelbay::TransLoading registry;
    fuzz::Check(registry.IsLockSucess());
    registry.TransEnable(false);
    registry.TransEnable(true);
    registry.IsOffineConverting();
    registry.IsHardwareTranscoding();
    fuzz::Check(registry.RemoveTransPIDLock(getppid()));
    fuzz::Check(registry.SaveTransPID(getpid(), false, false));
  }
  std::string text;
  Json::Value entries;
  fuzz::Check(tarn::ReadWholeFile(tarn::paths::kLoadRegistry, 2 << 20, text));
  fuzz::Check(LibReelbay::TextToJson(text, entries) && entries.isArray() && !entries.empty());
  for (const Json::Value& entry : entries) {
    fuzz::Check(entry["PID"].isInt() && entry["PID"].asInt() > 1);
    fuzz::Check(entry["PID"].asInt() != getppid());
    fuzz::Check(QLIBCProcAlive(entry["PID"].asInt()) != 0);
  }
  return 0;
}
