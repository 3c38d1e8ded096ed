// logcollector.h: what a program includes that logs: start, stop, the log call, the levels.
//
//     #include <logcollector/logcollector.h>
//
//     int main()
//     {
//         OsLogStart("viewer");
//         OSLOG_HERE(OS_LOG_NOTE, "opened <%s> in %d ms", "a.tif", 12);
//         OsLogStop();
//     }
//
// Everything else that the library has lies in the headers beside this one.
#pragma once

#include "os_log.h"
#include "os_types.h"

// The levels beside OS_LOG_ERROR (1, letter E) and OS_LOG_NOTE (4, letter "."). Errors and warnings are always
// written, notes unless OS_LOGFLAG_MILESTONES is set, debug lines only where OS_LOGFLAG_LEVEL32 is (os_coslog.h).
inline constexpr uint32_t OS_LOG_WARNING = OS_LOG_CHECK;   // 64, letter A; with flags set also on standard error
inline constexpr uint32_t OS_LOG_DEBUG = 32;               // letter "."

// Starts the library for an application with its own log and its own collector, which serves its children as well
// (os_cosservices.h is for other kinds of programs). a_szName names the log, as a file can be named, in at most 63
// bytes; "*" stands for the name of the program file. Called by the main thread before any other thread logs.
// EOSSTS_SUCCESS, also where no collector was found: the lines then go to the process's own file, whose first lines
// tell why. EOSSTS_FAIL for a name that cannot be used and without memory: nothing is logged.
EOSSTS OsLogStart(const char* a_szName);

// Sends the last lines and ends the log. Called when no other thread logs any more; without a start nothing happens.
void OsLogStop();

// The name of a source file without its folder.
constexpr const char* OsLogSourceOf(const char* a_szPath)
{
    const char* szName = a_szPath;
    for (; *a_szPath; ++a_szPath)
    {
        if (*a_szPath == '/' || *a_szPath == '\\')
            szName = a_szPath + 1;
    }
    return szName;
}

// Logs one line under the name of this source file, from any thread: a level, a format as printf takes it, its values.
#define OSLOG_HERE(a_u32Level, ...)                                                                                    \
    do                                                                                                                 \
    {                                                                                                                  \
        constexpr const char* szSource_ = OsLogSourceOf(__FILE__);                                                     \
        OSLOG_AT(szSource_, static_cast<uint32_t>(__LINE__), (a_u32Level), __VA_ARGS__);                               \
    } while (false)
