// chaos_application.cpp: an application of the family that logs until it is told to end, for tests that do things to it
// meanwhile.
//
//     chaos_application --name=NAME --result=FOLDER [--threads=N] [--children=N]
//
// Every thread logs "chaos THREAD NUMBER xxx...x." with numbers from 1 on, of 100 and now and then of 3,000 bytes.
// NAME.start in the result folder holds the process's id, its collector's and its log file, NAME.end how many lines
// each thread has logged. It ends when there is a file NAME.stop there; children are named NAME1, NAME2, ... and end
// alike.
#include "os_cfg.h"
#include "os_cosarguments.h"
#include "os_cosservices.h"
#include "os_costhread.h"
#include "os_log.h"

#include "plat_process.h"
#include "plat_wait.h"

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace fs = std::filesystem;

static constexpr char g_szSource[] = "tests/chaos_application";

static constexpr size_t g_sizetShort = 100;
static constexpr size_t g_sizetLong = 3000;
static constexpr unsigned g_uLongEvery = 5;
static constexpr unsigned g_uPauseEvery = 2;

static std::string ArgumentOf(int a_iArguments, char** a_aszArgument, const std::string& a_strKey,
                              const std::string& a_strDefault)
{
    for (int i = 1; i < a_iArguments; ++i)
    {
        if (std::strncmp(a_aszArgument[i], (a_strKey + "=").c_str(), a_strKey.size() + 1) == 0)
            return a_aszArgument[i] + a_strKey.size() + 1;
    }
    return a_strDefault;
}

// Appears whole or not at all.
static void Tell(const fs::path& a_path, const std::string& a_strText)
{
    const fs::path pathNew = a_path.string() + ".new";
    std::ofstream(pathNew) << a_strText;
    fs::rename(pathNew, a_path);
}

// The pauses keep the files small.
static unsigned LogUntil(unsigned a_uThread, const std::atomic<bool>& a_blStop)
{
    unsigned uLine = 0;
    while (!a_blStop.load())
    {
        ++uLine;
        const std::string strPadding(uLine % g_uLongEvery == 0 ? g_sizetLong : g_sizetShort, 'x');
        OSLOG(OS_LOG_NOTE, "chaos %u %u %s.", a_uThread, uLine, strPadding.c_str());
        if (uLine % g_uPauseEvery == 0)
            PlatSleep(1);
    }
    return uLine;
}

static std::string LogFromThreads(unsigned a_uThreads, const fs::path& a_pathStop)
{
    std::atomic<bool> blStop{false};
    std::vector<unsigned> vecuLines(a_uThreads);
    std::vector<std::thread> vecthread;
    for (unsigned uThread = 0; uThread < a_uThreads; ++uThread)
        vecthread.emplace_back([&, uThread] { vecuLines[uThread] = LogUntil(uThread, blStop); });
    while (!fs::exists(a_pathStop))
        PlatSleep(2);
    blStop = true;
    std::string strLines;
    for (unsigned uThread = 0; uThread < a_uThreads; ++uThread)
    {
        vecthread[uThread].join();
        strLines += std::to_string(vecuLines[uThread]) + " ";
    }
    return strLines;
}

int main(int a_iArguments, char** a_aszArgument)
{
    const std::string strName = ArgumentOf(a_iArguments, a_aszArgument, "--name", "chaos");
    const std::string strResult = ArgumentOf(a_iArguments, a_aszArgument, "--result", ".");
    const std::string strThreads = ArgumentOf(a_iArguments, a_aszArgument, "--threads", "4");
    const int iChildren = std::atoi(ArgumentOf(a_iArguments, a_aszArgument, "--children", "0").c_str());
    const std::string strDocument = "<arguments><uniquename>" + strName +
                                    "</uniquename><entity>application</entity><loglevel>1</loglevel></arguments>";
    OsServicesSetDocument(strDocument.c_str());
    if (OsServicesStart() != EOSSTS_SUCCESS)
        return 1;

    std::vector<std::unique_ptr<COsThread>> vecosthread;
    for (int iChild = 1; iChild <= iChildren; ++iChild)
    {
        const std::string strChild = "--name=" + strName + std::to_string(iChild);
        const char* const szProgram = OsCfgGetString(OS_CFGTAG_MAINPROGRAM);
        vecosthread.push_back(std::make_unique<COsThread>());
        vecosthread.back()->Spawn(
            OS_SPAWNFLAGS_NORETRY, szProgram, szProgram,
            {strChild.c_str(), ("--result=" + strResult).c_str(), ("--threads=" + strThreads).c_str()});
    }
    const fs::path pathResult = fs::path(strResult) / strName;
    Tell(pathResult.string() + ".start", std::to_string(PlatProcessId()) + " " +
                                             std::to_string(OsArgumentsCollector().u64ProcessIdCollector) + " " +
                                             OsCfgGetString(OS_CFGTAG_MVRLOG));
    const std::string strLines =
        LogFromThreads(static_cast<unsigned>(std::atoi(strThreads.c_str())), pathResult.string() + ".stop");
    OsServicesStop();
    Tell(pathResult.string() + ".end", strLines);
    return 0;
}
