// demo_application.cpp: a small application of the family: it starts the library, logs from several threads, and starts
// child processes that do the same.
//
//     demo_application [--name=NAME] [--threads=N] [--lines=N] [--children=N] [--victims=N] [--tell-collector]
//
// Its log goes to the collector that the library's start spawned, each process into a log file of its own. A victim is
// a child that logs without end, prints its line count after every line, and dies at once, wherever it is, when told
// to.
// Prints one line per process: its name, its log file and the number of lines that it has logged (for a victim: at
// least); on request first the collector's process id.
#include "os_cfg.h"
#include "os_cosarguments.h"
#include "os_coslog.h"
#include "os_cosservices.h"
#include "os_cosstring.h"
#include "os_costhread.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

static constexpr char g_szSource[] = "demo/demo_application";

static constexpr unsigned long g_ulVictimLines = 2000;   // minimum logged by a victim before it is killed

struct Options
{
    std::string strName = "demo";
    unsigned long ulThreads = 4;
    unsigned long ulLines = 2500;   // per thread
    unsigned long ulChildren = 0;
    unsigned long ulVictims = 0;
    bool blVictim = false;
    bool blTellCollector = false;
};

static Options ReadOptions(int a_iArguments, char** a_aszArgument)
{
    Options options;
    for (int i = 1; i < a_iArguments; ++i)
    {
        const std::string strArgument = a_aszArgument[i];
        const size_t sizetEqual = strArgument.find('=');
        const std::string strKey = strArgument.substr(0, sizetEqual);
        const std::string strValue = sizetEqual == std::string::npos ? "" : strArgument.substr(sizetEqual + 1);
        const unsigned long ulValue = std::strtoul(strValue.c_str(), nullptr, 10);
        if (strKey == "--name")
            options.strName = strValue;
        else if (strKey == "--threads")
            options.ulThreads = ulValue;
        else if (strKey == "--lines")
            options.ulLines = ulValue;
        else if (strKey == "--children")
            options.ulChildren = ulValue;
        else if (strKey == "--victims")
            options.ulVictims = ulValue;
        else if (strKey == "--victim")
            options.blVictim = true;
        else if (strKey == "--tell-collector")
            options.blTellCollector = true;
    }
    return options;
}

// ------------------------------------------------------------------------------------------------------ its own lines

static void LogFromThreads(const Options& a_options)
{
    std::vector<std::thread> vecthread;
    for (unsigned long ulThread = 0; ulThread < a_options.ulThreads; ++ulThread)
    {
        vecthread.emplace_back([&a_options, ulThread] {
            for (unsigned long ulLine = 0; ulLine < a_options.ulLines; ++ulLine)
                OSLOG(OS_LOG_NOTE, "thread %lu says line %lu of %lu", ulThread, ulLine, a_options.ulLines);
        });
    }
    for (std::thread& thread : vecthread)
        thread.join();
}

[[noreturn]] static void LogUntilKilled()
{
    std::thread([] {
        std::getchar();
        std::_Exit(1);
    }).detach();
    for (unsigned long ulLine = 1;; ++ulLine)
    {
        OSLOG(OS_LOG_NOTE, "a victim says line %lu", ulLine);
        std::printf("%lu\n", ulLine);
        std::fflush(stdout);
    }
}

static void Tell(const std::string& a_strName, const char* a_szLog, unsigned long a_ulLines, const char* a_szEnd)
{
    std::printf("%s %s %lu %s\n", a_strName.c_str(), a_szLog, a_ulLines, a_szEnd);
    std::fflush(stdout);
}

// ------------------------------------------------------------------------------------------------- its children

struct Child
{
    std::string strName;
    bool blVictim;
    COsThread osthread;
};

static std::unique_ptr<Child> StartChild(const char* a_szProgram, const Options& a_options, unsigned long a_ulNumber,
                                         bool a_blVictim)
{
    auto child = std::make_unique<Child>();
    child->strName = a_options.strName + (a_blVictim ? "victim" : "child") + std::to_string(a_ulNumber);
    child->blVictim = a_blVictim;
    const std::string strName = "--name=" + child->strName;
    const std::string strThreads = "--threads=" + std::to_string(a_options.ulThreads);
    const std::string strLines = "--lines=" + std::to_string(a_options.ulLines);
    if (child->osthread.Spawn(OS_SPAWNFLAGS_PIPES | OS_SPAWNFLAGS_NORETRY, a_szProgram, a_szProgram,
                              {strName.c_str(), strThreads.c_str(), strLines.c_str(), a_blVictim ? "--victim" : ""}) !=
        EOSSTS_SUCCESS)
        return nullptr;
    return child;
}

// Collects the child's output until it ends, or until a victim has logged enough and is killed.
static std::string Attend(Child& a_child)
{
    std::string strOutput;
    bool blKilled = false;
    for (;;)
    {
        char szPiece[4096];
        size_t sizetRead = 0;
        const EOSSTS eossts = a_child.osthread.ChildRead(szPiece, sizeof szPiece, &sizetRead);
        if (eossts != EOSSTS_SUCCESS && eossts != EOSSTS_TIMEOUT && eossts != EOSSTS_NOSPACE)
            return strOutput;
        strOutput.append(szPiece, sizetRead);
        const bool blEnough =
            static_cast<unsigned long>(std::count(strOutput.begin(), strOutput.end(), '\n')) > g_ulVictimLines;
        if (a_child.blVictim && blEnough && !blKilled)
            blKilled = a_child.osthread.ChildWrite("\n", 1) == EOSSTS_SUCCESS;
    }
}

// A victim's first line names its log, the last complete one holds its line count.
static void TellVictim(const Child& a_child, const std::string& a_strOutput)
{
    const size_t sizetLog = a_strOutput.find('\n');
    const size_t sizetEnd = a_strOutput.rfind('\n');
    const size_t sizetStart = sizetEnd == std::string::npos ? sizetEnd : a_strOutput.rfind('\n', sizetEnd - 1);
    if (sizetStart == std::string::npos)
        return;
    Tell(a_child.strName, a_strOutput.substr(0, sizetLog).c_str(),
         std::strtoul(a_strOutput.c_str() + sizetStart + 1, nullptr, 10), "killed");
}

static bool RunChildren(const char* a_szProgram, const Options& a_options)
{
    std::vector<std::unique_ptr<Child>> vecchild;
    for (unsigned long ul = 0; ul < a_options.ulChildren + a_options.ulVictims; ++ul)
        vecchild.push_back(StartChild(a_szProgram, a_options, ul + 1, ul >= a_options.ulChildren));
    LogFromThreads(a_options);

    bool blStarted = true;
    for (const auto& child : vecchild)
    {
        blStarted = blStarted && child;
        if (!child)
            continue;
        const std::string strOutput = Attend(*child);
        if (child->blVictim)
            TellVictim(*child, strOutput);
        else
            std::fputs(strOutput.c_str(), stdout);
    }
    return blStarted;
}

int main(int a_iArguments, char** a_aszArgument)
{
    const Options options = ReadOptions(a_iArguments, a_aszArgument);
    const std::string strDocument = "<arguments><uniquename>" + options.strName +
                                    "</uniquename><entity>application</entity><loglevel>1</loglevel></arguments>";
    OsServicesSetDocument(strDocument.c_str());
    if (OsServicesStart() != EOSSTS_SUCCESS)
        return 1;

    const std::string strLog = OsCfgGetString(OS_CFGTAG_MVRLOG);
    if (options.blTellCollector)
        Tell("collector", "-", static_cast<unsigned long>(OsArgumentsCollector().u64ProcessIdCollector), "started");
    if (options.blVictim)
    {
        std::printf("%s\n", strLog.c_str());
        LogUntilKilled();
    }
    const bool blStarted = RunChildren(OsCfgGetString(OS_CFGTAG_MAINPROGRAM), options);
    Tell(options.strName, strLog.c_str(), options.ulThreads * options.ulLines,
         OsLogGet()->UsesCollector() ? "collected" : "own-file");
    OsServicesStop();
    return blStarted ? 0 : 1;
}
