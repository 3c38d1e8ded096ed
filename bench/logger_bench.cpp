// logger_bench.cpp: what the logger costs, in one run, as ratios with their limits.
//
//     logger_bench [rounds]
//
// Every run that writes checks every line. Exit code 1 when one is lost, doubled or torn.
//
//     logger_bench --start
//
// starts the library once and prints the microseconds that this took, as "<lc>MICROSECONDS</lc>".
#include "bench_support.h"
#include "bench_target.h"
#include "logger_sections.h"

#include "os_coslog.h"
#include "os_cosservices.h"

#include <chrono>
#include <cstring>

using Clock = std::chrono::steady_clock;

static constexpr double g_dStartLimit = 5000;   // microseconds
static constexpr int g_iStarts = 41;

static constexpr char g_szDocument[] =
    "<arguments><uniquename>bench</uniquename><entity>application</entity></arguments>";

// All that the library keeps is below a_strFolder.
static void LiveIn(const std::string& a_strFolder)
{
    for (const char* szName : {"LOCALAPPDATA", "APPDATA", "PROGRAMDATA"})
        setenv(szName, (a_strFolder + "/" + szName).c_str(), 1);
}

static int StartOnce()
{
    OsServicesSetDocument(g_szDocument);
    const auto start = Clock::now();
    const EOSSTS eossts = OsServicesStart();
    const double dMicroseconds = std::chrono::duration<double, std::micro>(Clock::now() - start).count();
    OsServicesStop();
    std::printf("<lc>%.3f</lc>", dMicroseconds);
    return eossts == EOSSTS_SUCCESS ? 0 : 1;
}

static void BenchStart()
{
    std::vector<double> vecdMicroseconds;
    for (int i = 0; i < g_iStarts; ++i)
    {
        const WorkFolder workfolder;
        LiveIn(workfolder.Path());
        Target target;
        std::string strReply;
        if (target.Spawn({OwnProgram("logger_bench"), "--start"}, &strReply))
            vecdMicroseconds.push_back(std::atof(strReply.c_str() + std::strlen("<lc>")));
    }
    const double dStart = Median(vecdMicroseconds);
    std::printf("\n== Start of the library with its whole configuration, without any INI file\n%.0f us, %s\n", dStart,
                Verdict(dStart, g_dStartLimit).c_str());
}

int main(int a_iArguments, char** a_aszArgument)
{
    if (a_iArguments > 1 && std::strcmp(a_aszArgument[1], "--start") == 0)
        return StartOnce();
    const int iRounds = a_iArguments > 1 ? std::atoi(a_aszArgument[1]) : 9;
    BenchStart();

    const WorkFolder workfolder;
    LiveIn(workfolder.Path());
    OsServicesSetDocument(g_szDocument);
    if (OsServicesStart() != EOSSTS_SUCCESS)
        return 1;
    bool blEveryLine = BenchCalls(workfolder.Path());
    blEveryLine &= BenchFileLines(workfolder.Path(), iRounds);
    blEveryLine &= BenchCollectorLines(workfolder.Path(), iRounds);
    OsServicesStop();
    std::printf("\n%s\n", blEveryLine ? "Every line of every run was whole and in its file." : "LINES WERE LOST.");
    return blEveryLine ? 0 : 1;
}
