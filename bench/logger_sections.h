// logger_sections.h: the parts of logger_bench.
#pragma once

#include "os_log.h"

#include <string>

// What a log call costs that writes nothing, and what formatting costs. False when one has written.
bool BenchCalls(const std::string& a_strFolder);

// Lines into a file, by 1 to 8 threads; lines to a collector. False when one was lost or torn.
bool BenchFileLines(const std::string& a_strFolder, int a_iRounds);
bool BenchCollectorLines(const std::string& a_strFolder, int a_iRounds);

void EmptyCall(COsLogSink*, const char*, uint32_t, uint32_t, const char*, ...) OS_PRINTFLIKE(5, 6);
