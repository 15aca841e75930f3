// The figures. Each measures, prints its details and adds its rows; README.md says what they mean.
#pragma once

#include "bench/report.h"

namespace tarnbench {

void MeasureFirstByte(Report& report);
void MeasureWholeStream(Report& report);
void MeasureProbe(Report& report);
void MeasureRegistry(Report& report);
void MeasureMonitor(Report& report);

}  // namespace tarnbench
