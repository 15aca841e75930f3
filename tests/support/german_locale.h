// A locale that writes "1.234,5", for those tests that must not notice it. Their target depends on
// test_locales.
#pragma once

#include <sys/mount.h>

namespace tarn::test {

inline constexpr char kGermanLocale[] = "de_DE.UTF-8";

// Makes the sandboxed host have it. False where that fails.
inline bool InstallGermanLocale() {
  return mount(TARN_TEST_BIN "/tests/locales", "/usr/lib/locale", nullptr, MS_BIND, nullptr) == 0;
}

}  // namespace tarn::test
