// Log lines of the engine: "%s:%d " (source unit, line), then the text, to syslog.
//
// The text is formatted here and handed to syslog as data, so nothing that a file name holds is
// ever read as a format. Control characters become '?' (one entry stays one line) and an entry ends
// after 1 KiB.
#pragma once

#include <syslog.h>

namespace tarn {

// Receives every finished line instead of syslog. Null restores syslog.
using LogSink = void (*)(int priority, const char* line);
void SetLogSink(LogSink sink);

void Log(int priority, const char* unit, int line, const char* format, ...)
    __attribute__((format(printf, 4, 5)));

}  // namespace tarn

// Each source file that logs defines kLogUnit, the name of its unit.
#define TARN_LOG(priority, ...) ::tarn::Log((priority), kLogUnit, __LINE__, __VA_ARGS__)
#define TARN_LOG_ERR(...) TARN_LOG(LOG_ERR, __VA_ARGS__)
