// clean_bench.cpp: the program's cleaning of 10,000 expired log folders against "rm -r" of the same tree.
//
//     clean_bench [rounds]
//
// A round makes the tree twice and removes one after the other, in changing order; a figure is the median. Exit code 1
// when a log folder is left.
#include "bench_support.h"

#include <chrono>
#include <cstdio>
#include <fstream>
#include <spawn.h>
#include <sys/wait.h>

namespace fs = std::filesystem;

static constexpr int g_iLogFolders = 10000;

extern char** environ;

// Runs it to its end; the milliseconds that took.
static double Run(std::vector<std::string> a_vecstrCommand)
{
    std::vector<char*> vecszArgument;
    vecszArgument.reserve(a_vecstrCommand.size() + 1);
    for (std::string& str : a_vecstrCommand)
        vecszArgument.push_back(str.data());
    vecszArgument.push_back(nullptr);
    const auto start = std::chrono::steady_clock::now();
    pid_t pid = 0;
    if (posix_spawn(&pid, vecszArgument[0], nullptr, nullptr, vecszArgument.data(), environ) == 0)
        waitpid(pid, nullptr, 0);
    return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
}

// Log folders of processes that ended long ago, each with so many logs.
static void MakeTree(const fs::path& a_path, int a_iLogs)
{
    const auto time = fs::file_time_type::clock::now() - std::chrono::hours(48);
    for (int iFolder = 0; iFolder < g_iLogFolders; ++iFolder)
    {
        char szName[32];
        std::snprintf(szName, sizeof szName, "log.202401011200%08d", iFolder);
        const fs::path path = a_path / szName;
        fs::create_directories(path);
        for (int iLog = 0; iLog < a_iLogs; ++iLog)
        {
            const fs::path pathLog = path / ("process" + std::to_string(iLog) + ".log");
            std::ofstream(pathLog) << std::string(1000, 'x');
            fs::last_write_time(pathLog, time);
        }
    }
}

// False when a log folder is left.
static bool BenchTree(const char* a_szWhere, bool a_blOnDisk, int a_iLogs, int a_iRounds)
{
    std::vector<double> vecdClean;
    std::vector<double> vecdRemove;
    for (int iRound = 0; iRound < a_iRounds; ++iRound)
    {
        const WorkFolder workfolder(a_blOnDisk);
        const fs::path pathWork = workfolder.Path();
        for (const char* szName : {"LOCALAPPDATA", "APPDATA", "PROGRAMDATA"})
            setenv(szName, (pathWork / szName).c_str(), 1);
        const fs::path pathClean = pathWork / "LOCALAPPDATA/mvr_orvane/application/old";
        const fs::path pathRemove = pathWork / "same/mvr_orvane/application/old";
        MakeTree(pathClean, a_iLogs);
        MakeTree(pathRemove, a_iLogs);
        for (const bool blClean : {iRound % 2 == 0, iRound % 2 != 0})
        {
            if (blClean)
                vecdClean.push_back(Run({BENCH_PROGRAMFOLDER "/logcollector", "--clean", "--hourstokeep=24"}));
            if (!blClean)
                vecdRemove.push_back(Run({"/bin/rm", "-r", pathRemove}));
        }
        if (!fs::is_empty(pathClean) || fs::exists(pathRemove))
            return false;
    }
    std::printf("%-9s %d log%s each: --clean %5.0f ms, rm -r %5.0f ms: x%.2f\n", a_szWhere, a_iLogs,
                a_iLogs == 1 ? " " : "s", Median(vecdClean), Median(vecdRemove),
                Median(vecdClean) / Median(vecdRemove));
    return true;
}

int main(int a_iArguments, char** a_aszArgument)
{
    const int iRounds = a_iArguments > 1 ? std::atoi(a_aszArgument[1]) : 5;
    std::printf("\n== Cleaning %d log folders; 1.5 is what is promised at most\n", g_iLogFolders);
    for (const int iLogs : {1, 4})
    {
        if (!BenchTree("in memory", false, iLogs, iRounds) || !BenchTree("on disk", true, iLogs, iRounds))
        {
            std::printf("LOG FOLDERS ARE LEFT.\n");
            return 1;
        }
    }
    return 0;
}
