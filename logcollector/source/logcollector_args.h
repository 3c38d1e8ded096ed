// logcollector_args.h: the command line of the program.
#pragma once

#include "os_types.h"

enum class RunMode : uint32_t
{
    None = 0,   // only starts and stops the library
    Collect = 1,
    Clean = 2,
};

struct LogCollectorArgs
{
    CollectorMode collectormode = {};
    char szDocument[2048] = {};   // the application's arguments document
    int64_t i64ProcessIdApplication = 0;
    int32_t i32HoursToKeep = 0;
    char szSubfolder[64] = {};
};

// Parses the arguments after the program's name. The last one that selects a mode wins; a value that does not fit or
// cannot be decoded leaves its field empty.
RunMode LogCollectorParse(int a_iArguments, char* const* a_aszArgument, LogCollectorArgs& a_logcollectorargs);
