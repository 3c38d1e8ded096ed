// logcollector_args.cpp: the command line, and the application process id in its document.
#include "logcollector_args.h"

#include "os_coslogcollector_protocol.h"
#include "os_cosmem.h"
#include "os_cosstring.h"

#include <cstring>

static void TakeDocument(const char* a_szValue, LogCollectorArgs& a_logcollectorargs)
{
    SStrCpy(a_logcollectorargs.szDocument, sizeof a_logcollectorargs.szDocument, a_szValue);
}

static void TakeEncodedDocument(const char* a_szValue, LogCollectorArgs& a_logcollectorargs)
{
    size_t sizetLength = 0;
    if (Base64Decode(a_logcollectorargs.szDocument, sizeof a_logcollectorargs.szDocument - 1, &sizetLength, a_szValue,
                     std::strlen(a_szValue)) != EOSSTS_SUCCESS)
        sizetLength = 0;
    a_logcollectorargs.szDocument[sizetLength] = 0;
}

static void TakeHoursToKeep(const char* a_szValue, LogCollectorArgs& a_logcollectorargs)
{
    a_logcollectorargs.i32HoursToKeep = StrToInt32(a_szValue);
}

static void TakeSubfolder(const char* a_szValue, LogCollectorArgs& a_logcollectorargs)
{
    SStrCpy(a_logcollectorargs.szSubfolder, sizeof a_logcollectorargs.szSubfolder, a_szValue);
}

static void TakeNothing(const char*, LogCollectorArgs&) {}

namespace
{
struct Option
{
    const char* szPrefix;
    RunMode runmode;   // None: does not change the mode
    void (*pfnTake)(const char* a_szValue, LogCollectorArgs& a_logcollectorargs);
};
}   // namespace

static constexpr Option g_aoption[] = {
    {"--xml=", RunMode::Collect, &TakeDocument},     {OS_LC_STARTARGUMENT, RunMode::Collect, &TakeEncodedDocument},
    {"--clean", RunMode::Clean, &TakeNothing},       {"--hourstokeep=", RunMode::None, &TakeHoursToKeep},
    {"--subfolder=", RunMode::None, &TakeSubfolder},
};

RunMode LogCollectorParse(int a_iArguments, char* const* a_aszArgument, LogCollectorArgs& a_logcollectorargs)
{
    RunMode runmode = RunMode::None;
    for (int i = 1; i < a_iArguments; ++i)
    {
        for (const Option& option : g_aoption)
        {
            if (!StrStartsWith(a_aszArgument[i], option.szPrefix))
                continue;
            option.pfnTake(a_aszArgument[i] + std::strlen(option.szPrefix), a_logcollectorargs);
            if (option.runmode != RunMode::None)
                runmode = option.runmode;
            break;
        }
    }

    a_logcollectorargs.collectormode = OS_COLLECTORMODE_SHARED;
    if (a_logcollectorargs.szDocument[0])
    {
        a_logcollectorargs.i64ProcessIdApplication = OsLcReadStartDocument(a_logcollectorargs.szDocument);
        a_logcollectorargs.collectormode = OS_COLLECTORMODE_PRIVATE;
    }
    return runmode;
}
