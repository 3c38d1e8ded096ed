// objects_bench.cpp: what threads, events and children cost.
//
//     objects_bench                          microseconds a piece, each the median of some batches
//     objects_bench --against PROGRAM [N]    against the same program of another build, N times in turns: the median of
//                                            the ratios
#include "bench_support.h"

#include "os_cosmem.h"
#include "os_cossync.h"
#include "os_costhread.h"

#include "plat_process.h"
#include "plat_wait.h"

#include <chrono>
#include <cstring>
#include <functional>

using Clock = std::chrono::steady_clock;

static constexpr int g_iBatches = 15;
static constexpr int g_iRounds = 15;

static uint32_t UntilStopped(COsThread* a_posthread)
{
    while (a_posthread->WaitForStop(OS_INFINITE) != EOSSTS_SUCCESS)
    {
    }
    return 0;
}

static void StartAndStop(COsThread& a_osthread)
{
    a_osthread.Start("bench", UntilStopped, nullptr);
    a_osthread.Stop(false, 10000);
}

static void UseEvent(const char* a_szName, const char* a_szGroup)
{
    COsSync ossync;
    ossync.EventCreate(a_szName, a_szGroup);
    ossync.EventSet();
    ossync.EventWait(1000, nullptr);
    ossync.EventClose();
}

static void SpawnAndWait(COsThread& a_osthread)
{
    a_osthread.Spawn(OS_SPAWNFLAGS_NORETRY | OS_SPAWNFLAGS_PIPES, "/bin/true", "true", {});
    const PlatHandle plathandle = a_osthread.ChildProcess();
    PlatWaitAny(&plathandle, 1, 10000);
    a_osthread.ChildIsRunning();
}

struct Measured
{
    const char* szName;
    int iBatch;
    std::function<void()> function;
};

static std::vector<Measured> AllMeasured(COsThread& a_osthread)
{
    return {{"thread, new object", 200,
             [] {
                 COsThread osthread;
                 StartAndStop(osthread);
             }},
            {"thread, same object", 200, [&] { StartAndStop(a_osthread); }},
            {"event", 2000, [] { UseEvent("", ""); }},
            {"event of a group", 500, [] { UseEvent("benchevent", "benchgroup"); }},
            {"spawn", 30, [&] { SpawnAndWait(a_osthread); }}};
}

static double Microseconds(const Measured& a_measured)
{
    std::vector<double> vecd;
    for (int iBatch = 0; iBatch < g_iBatches; ++iBatch)
    {
        const auto start = Clock::now();
        for (int i = 0; i < a_measured.iBatch; ++i)
            a_measured.function();
        vecd.push_back(std::chrono::duration<double, std::micro>(Clock::now() - start).count() / a_measured.iBatch);
    }
    return Median(vecd);
}

static std::vector<double> FiguresOf(const std::string& a_strProgram)
{
    std::vector<double> vecd;
    FILE* const pfile = popen((a_strProgram + " --figures").c_str(), "r");
    double dFigure = 0;
    while (pfile && std::fscanf(pfile, "%lf", &dFigure) == 1)
        vecd.push_back(dFigure);
    if (pfile)
        pclose(pfile);
    return vecd;
}

static int Compare(const std::string& a_strOwn, const std::string& a_strOther, int a_iRounds)
{
    COsThread osthread;
    const std::vector<Measured> vecmeasured = AllMeasured(osthread);
    std::vector<std::vector<double>> vecvecRatio(vecmeasured.size());
    std::vector<std::vector<double>> vecvecMore(vecmeasured.size());
    for (int iRound = 0; iRound < a_iRounds; ++iRound)
    {
        const bool blOwnFirst = iRound % 2 == 0;
        const std::vector<double> vecdFirst = FiguresOf(blOwnFirst ? a_strOwn : a_strOther);
        const std::vector<double> vecdSecond = FiguresOf(blOwnFirst ? a_strOther : a_strOwn);
        const std::vector<double>& vecdOwn = blOwnFirst ? vecdFirst : vecdSecond;
        const std::vector<double>& vecdOther = blOwnFirst ? vecdSecond : vecdFirst;
        if (vecdOwn.size() != vecmeasured.size() || vecdOther.size() != vecmeasured.size())
            return 1;
        for (size_t sizet = 0; sizet < vecmeasured.size(); ++sizet)
        {
            vecvecRatio[sizet].push_back(vecdOwn[sizet] / vecdOther[sizet]);
            vecvecMore[sizet].push_back(vecdOwn[sizet] - vecdOther[sizet]);
        }
    }
    for (size_t sizet = 0; sizet < vecmeasured.size(); ++sizet)
        std::printf("%-20s %.2f of the other, %+.1f us\n", vecmeasured[sizet].szName, Median(vecvecRatio[sizet]),
                    Median(vecvecMore[sizet]));
    return 0;
}

int main(int a_iArguments, char** a_aszArgument)
{
    if (a_iArguments > 2 && std::strcmp(a_aszArgument[1], "--against") == 0)
        return Compare(a_aszArgument[0], a_aszArgument[2], a_iArguments > 3 ? std::atoi(a_aszArgument[3]) : g_iRounds);
    const WorkFolder workfolder;   // of the group's file
    std::filesystem::current_path(workfolder.Path());
    const COsMem osmem;   // who makes it
    const bool blFigures = a_iArguments > 1 && std::strcmp(a_aszArgument[1], "--figures") == 0;
    COsThread osthread;
    for (const Measured& measured : AllMeasured(osthread))
        blFigures ? std::printf("%.3f\n", Microseconds(measured))
                  : std::printf("%8.2f us  %s\n", Microseconds(measured), measured.szName);
    return 0;
}
