#include "base/log.h"

#include <cstdarg>
#include <cstdio>

namespace tarn {
namespace {

constexpr size_t kMaxLine = 1024;
LogSink g_sink = nullptr;

}  // namespace

void SetLogSink(LogSink sink) { g_sink = sink; }

void Log(int priority, const char* unit, int line, const char* format, ...) {
  char text[kMaxLine];
  int prefix = std::snprintf(text, sizeof text, "%s:%d ", unit, line);
  if (prefix < 0 || static_cast<size_t>(prefix) >= sizeof text) return;
  va_list args;
  va_start(args, format);
  std::vsnprintf(text + prefix, sizeof text - static_cast<size_t>(prefix), format, args);
  va_end(args);
  for (char* c = text; *c != '\0'; ++c) {
    if (static_cast<unsigned char>(*c) < 0x20 || *c == 0x7f) *c = '?';
  }
  if (g_sink != nullptr) {
    g_sink(priority, text);
  } else {
    syslog(priority, "%s", text);
  }
}

}  // namespace tarn
