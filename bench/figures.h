// The figures. Each measures, prints its details and adds its rows; README.md says what they mean.
#pragma once

#include "bench/report.h"

namespace tarnbench {

void MeasureFirstByte(Report& report);
void MeasureWholeStream(Report& report);
void MeasureProbe(Report& report);
void MeasureRegistry(Report& report);
void MeasureMonitor(Report& report);
void MeasureFirstSegment(Report& report);
void MeasureFarSeek(Report& report);
void MeasureReadySegment(Report& report);
void MeasureAllSegments(Report& report);
void MeasureFirstFragment(Report& report);
void MeasureFarFragment(Report& report);
void MeasureReadyFragment(Report& report);
void MeasureLauncher(Report& report);
void MeasurePlaylists(Report& report);
void MeasureAnalysis(Report& report);
void MeasureServeFiles(Report& report);
void MeasurePage(Report& report);
void MeasureServeMemory(Report& report);

}  // namespace tarnbench
