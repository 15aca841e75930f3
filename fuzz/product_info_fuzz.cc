// "/etc.defaults/tarninfo.conf" and the platform that is made of it.
#include <cstring>

#include "base/paths.h"
#include "fuzz/fuzz_input.h"
#include "tarnutil/qlibc.h"
#include "tarnvte/platform_utils.h"

namespace {

// The engine's own object lives as long as the process; this one reads the file again.
class FreshPlatform : public librb::util::PlatformUtils {};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::DropLogLines();
  fuzz::PutFile(tarn::paths::kProductInfo, fuzz::Text(data, size));
  char value[64];
  const int length =
      QLIBCFileGetKeyValue(tarn::paths::kProductInfo, "unique", value, sizeof value, 0);
  fuzz::Check(length < static_cast<int>(sizeof value));
  if (length > 0) fuzz::Check(std::memchr(value, '\0', sizeof value) != nullptr);
  const FreshPlatform platform;
  platform.IsSupportHWTranscode();
  platform.IsHWSettingEnabled();
  fuzz::Check(!platform.GetFFmpegPath().empty());
  platform.GetGstreamerPath();
  platform.GetTransPlatformName();
  return 0;
}
