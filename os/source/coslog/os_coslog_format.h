// os_coslog_format.h: formatting for the logger itself, whose failures go to the standard error stream, never through
// the logger.
#pragma once

#include "os_types.h"

#include <cstddef>

// Format into a_szBuffer, or append to the text in it. Returns the length of the whole text; -1, reported on the
// standard error stream, when an argument is null or the text does not fit.
int LogSStrPrintf(char* a_szBuffer, size_t a_sizetBuffer, const char* a_szFormat, ...) OS_PRINTFLIKE(3, 4);
int LogSStrCatf(char* a_szBuffer, size_t a_sizetBuffer, const char* a_szFormat, ...) OS_PRINTFLIKE(3, 4);
void LogTellFormatFailed(const char* a_szFunction, const char* a_szBuffer, size_t a_sizetBuffer,
                         const char* a_szFormat);
void LogTellStandardError(const char* a_szFormat, ...) OS_PRINTFLIKE(1, 2);
