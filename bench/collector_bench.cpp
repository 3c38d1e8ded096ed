// collector_bench.cpp: the collector against the floor and the peers, in one run, as ratios.
//
//     collector_bench [rounds]
//
// Every cell runs all targets in turn, several rounds; a figure is the median. Every run checks every byte. Exit code
// 1 when one byte differs.
#include "bench_load.h"
#include "bench_support.h"
#include "bench_target.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

using Clock = std::chrono::steady_clock;

static constexpr double g_dLibraryStartLimit = 2.5;
static constexpr double g_dCollectorStartLimit = 1.5;

static bool g_blEveryByte = true;

static std::vector<TargetKind> InstalledTargets()
{
    std::vector<TargetKind> vectargetkind;
    for (const TargetKind& targetkind : g_vectargetkind)
    {
        if (IsInstalled(targetkind))
        {
            vectargetkind.push_back(targetkind);
        }
        else
        {
            std::printf("%s is not installed (./bench.sh --peers installs it)\n", targetkind.szName);
        }
    }
    return vectargetkind;
}

// ---------------------------------------------------------------------------------------------------- throughput

struct Figures
{
    std::vector<double> vecdMegabytesPerSecond;
    std::vector<double> vecdSecondsPerGigabyte;
};

static void RunOnce(const TargetKind& a_targetkind, Load a_load, Figures& a_figures)
{
    a_load.sizetBytes = a_load.sizetBytes / BENCH_LINESIZE / a_targetkind.u32Share * BENCH_LINESIZE;
    const WorkFolder workfolder;
    const auto target = a_targetkind.pfnStart(workfolder.Path(), a_load.u32Streams);
    if (!target)
    {
        std::printf("  %s did not start\n", a_targetkind.szName);
        return;
    }
    const LoadResult loadresult = RunLoad(a_load, target->loadtarget);
    const double dProcessor = target->Kill();
    if (!loadresult.blEveryByte)
    {
        std::printf("  %s: NOT EVERY BYTE ARRIVED\n", a_targetkind.szName);
        g_blEveryByte = g_blEveryByte && a_targetkind.szProgram;   // a peer's loss is its own
        return;
    }
    const double dBytes = static_cast<double>(a_load.sizetBytes) * a_load.u32Streams;
    a_figures.vecdMegabytesPerSecond.push_back(dBytes / 1e6 / loadresult.dSeconds);
    a_figures.vecdSecondsPerGigabyte.push_back(dProcessor / (dBytes / 1e9));
}

static void RunCell(const std::vector<TargetKind>& a_vectargetkind, const Load& a_load, const char* a_szName,
                    int a_iRounds)
{
    std::vector<Figures> vecfigures(a_vectargetkind.size());
    for (int iRound = 0; iRound < a_iRounds; ++iRound)
    {
        for (size_t sizet = 0; sizet < a_vectargetkind.size(); ++sizet)
            RunOnce(a_vectargetkind[sizet], a_load, vecfigures[sizet]);
    }
    const double dSpeed = Median(vecfigures[0].vecdMegabytesPerSecond);
    const double dCost = Median(vecfigures[0].vecdSecondsPerGigabyte);
    std::printf("%-18s %2u streams  collector %7.1f MB/s %7.2f s/GB", a_szName, a_load.u32Streams, dSpeed, dCost);
    for (size_t sizet = 1; sizet < a_vectargetkind.size(); ++sizet)
    {
        const double dOtherSpeed = Median(vecfigures[sizet].vecdMegabytesPerSecond);
        const double dOtherCost = Median(vecfigures[sizet].vecdSecondsPerGigabyte);
        if (dOtherSpeed > 0)
        {
            std::printf(" | %s x%.2f speed x%.2f cost", a_vectargetkind[sizet].szName, dSpeed / dOtherSpeed,
                        dCost / dOtherCost);
        }
    }
    std::printf("\n");
    std::fflush(stdout);
}

static size_t WholeLines(size_t a_sizetBytes, uint32_t a_u32Streams)
{
    return a_sizetBytes / a_u32Streams / BENCH_LINESIZE * BENCH_LINESIZE;
}

static void BenchThroughput(const std::vector<TargetKind>& a_vectargetkind, int a_iRounds)
{
    std::printf(
        "\n== Throughput and processor time; ratios collector / other: speed above 1 and cost below 1 are ours\n");
    for (uint32_t u32Streams : {1u, 4u, 16u, 64u})
    {
        RunCell(a_vectargetkind, {u32Streams, 65536, false, WholeLines(512u << 20, u32Streams)}, "64 KiB sends",
                a_iRounds);
        RunCell(a_vectargetkind, {u32Streams, BENCH_LINESIZE, false, WholeLines(128u << 20, u32Streams)}, "lines",
                a_iRounds);
        RunCell(a_vectargetkind, {u32Streams, BENCH_LINESIZE, true, WholeLines(64u << 20, u32Streams)},
                "lines, no delay", a_iRounds);
    }
}

// ----------------------------------------------------------------------------------------------------------- idle

static double ResidentKilobytes(pid_t a_pid)
{
    const std::string strStatus = ReadFile("/proc/" + std::to_string(a_pid) + "/status");
    const size_t sizet = strStatus.find("VmRSS:");
    return sizet == std::string::npos ? 0 : std::atof(strStatus.c_str() + sizet + 6);
}

static double RunMilliseconds(pid_t a_pid)
{
    double dNanoseconds = 0;
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/" + std::to_string(a_pid) + "/task", error))
        dNanoseconds += std::atof(ReadFile(entry.path() / "schedstat").c_str());
    return dNanoseconds / 1e6;
}

static void BenchIdle(const std::vector<TargetKind>& a_vectargetkind)
{
    std::printf("\n== Idle connections that have each sent a header and a line\n");
    for (uint32_t u32Connections : {64u, 1000u})
    {
        for (size_t sizet = 0; sizet < 2; ++sizet)
        {
            const WorkFolder workfolder;
            const auto target = a_vectargetkind[sizet].pfnStart(workfolder.Path(), u32Connections);
            if (!target)
                continue;
            const double dBefore = ResidentKilobytes(target->vecpid[0]);
            const std::vector<int> veciSocket = OpenIdle(u32Connections, target->loadtarget);
            if (veciSocket.empty())
            {
                std::printf("  %s: NOT EVERY LINE ARRIVED\n", a_vectargetkind[sizet].szName);
                g_blEveryByte = false;
                continue;
            }
            const double dAfter = ResidentKilobytes(target->vecpid[0]);
            const double dRun = RunMilliseconds(target->vecpid[0]);
            std::this_thread::sleep_for(std::chrono::seconds(2));
            std::printf("%4u connections  %-9s %8.0f KiB resident, %5.1f KiB for each, %.3f ms of processor in 2 s\n",
                        u32Connections, a_vectargetkind[sizet].szName, dAfter, (dAfter - dBefore) / u32Connections,
                        RunMilliseconds(target->vecpid[0]) - dRun);
            for (int iSocket : veciSocket)
                close(iSocket);
        }
    }
}

// ---------------------------------------------------------------------------------------------------------- start

static double StartMicroseconds(const std::vector<std::string>& a_vecstrCommand)
{
    Target target;
    std::string strReply;
    const auto start = Clock::now();
    if (!target.Spawn(a_vecstrCommand, &strReply))
        return 0;
    return std::chrono::duration<double, std::micro>(Clock::now() - start).count();
}

// What an application takes for its start with the collector beside it; 0 when it got none.
static double ApplicationMicroseconds(const std::string& a_strCommand)
{
    FILE* const pfile = popen(a_strCommand.c_str(), "r");
    double dMicroseconds = 0;
    if (!pfile || std::fscanf(pfile, "%lf", &dMicroseconds) != 1)
        dMicroseconds = 0;
    if (pfile)
        pclose(pfile);
    return dMicroseconds;
}

static void PrintStart(const char* a_szWhat, double a_dMicroseconds, const char* a_szFloor, double a_dFloor,
                       double a_dLimit)
{
    const double dRatio = a_dMicroseconds / a_dFloor;
    std::printf("%s %.0f us, %s %.0f us: x%.2f, %s\n", a_szWhat, a_dMicroseconds, a_szFloor, a_dFloor, dRatio,
                Verdict(dRatio, a_dLimit).c_str());
}

// The library is compared with an application that does nothing but start the collector: both of them are processes
// that have just begun, and neither finds the log folders of those before.
static void BenchStart(const std::string& a_strFolder)
{
    std::vector<double> vecdCollector;
    std::vector<double> vecdFloor;
    std::vector<double> vecdLibrary;
    std::vector<double> vecdBare;
    for (const char* szProgram : {"logcollector", "application_start"})
        std::filesystem::copy_file(OwnProgram(szProgram), a_strFolder + "/" + szProgram);
    const std::string strOwner = "--xml=<lc><lcpidapp>" + std::to_string(getpid()) + "</lcpidapp></lc>";
    for (int i = 0; i < 201; ++i)
    {
        vecdCollector.push_back(StartMicroseconds({OwnProgram("logcollector"), strOwner}));
        vecdFloor.push_back(StartMicroseconds({OwnProgram("floor_port")}));
    }
    const auto startFresh = [&](const char* a_szArgument) {
        std::error_code ignored;
        std::filesystem::remove_all(std::getenv("LOCALAPPDATA"), ignored);
        return ApplicationMicroseconds(a_strFolder + "/application_start" + a_szArgument);
    };
    for (int i = 0; i < 101; ++i)
    {
        vecdLibrary.push_back(startFresh(""));
        vecdBare.push_back(startFresh(" bare"));
    }
    std::printf("\n== From start to the port on standard output\n");
    PrintStart("collector", Median(vecdCollector), "a static C program that binds and prints", Median(vecdFloor),
               g_dCollectorStartLimit);
    PrintStart("start of the library with its collector", Median(vecdLibrary), "the start of the collector alone",
               Median(vecdBare), g_dLibraryStartLimit);
}

int main(int a_iArguments, char** a_aszArgument)
{
    const int iRounds = a_iArguments > 1 ? std::atoi(a_aszArgument[1]) : 5;
    const std::vector<TargetKind> vectargetkind = InstalledTargets();
    const WorkFolder workfolder;
    for (const char* szFolder : {"LOCALAPPDATA", "APPDATA", "PROGRAMDATA"})
        setenv(szFolder, (workfolder.Path() + "/" + szFolder).c_str(), 1);
    BenchStart(workfolder.Path());
    BenchIdle(vectargetkind);
    BenchThroughput(vectargetkind, iRounds);
    std::printf("\n%s\n", g_blEveryByte ? "Every byte of every run was in its file." : "BYTES WERE LOST.");
    return g_blEveryByte ? 0 : 1;
}
