// logger_lines.cpp: lines into a file and lines to a collector, each against the least that could do it, and files
// against the peers. In every round all take their turn; a ratio is the median of the rounds' ratios.
#include "bench_lines.h"
#include "bench_support.h"
#include "bench_target.h"
#include "logger_sections.h"

#include "os_coslog.h"
#include "os_coslogcollector.h"
#include "os_coslogcollector_protocol.h"
#include "os_cossocket.h"

#include <cstring>
#include <fcntl.h>
#include <functional>

static constexpr char g_szSource[] = "os/source/os_cossync";

// Short runs, many rounds: what disturbs one run does not decide the median.
static constexpr uint32_t g_u32LinesOfRun = 20000;   // of all threads
static constexpr uint32_t g_u32SingleLines = 500;
static constexpr double g_dBareLimit = 1.2;
static constexpr double g_dSendLimit = 1.15;
static constexpr double g_dSendTogetherLimit = 0.8;   // threads share their sends
static constexpr double g_dLevel = 1.1;               // "level with" in a run that others disturb

// ------------------------------------------------------------------------------------------------------- checking

// Takes the number that stands behind a_strKey.
static bool NumberBehind(const std::string& a_strLine, const std::string& a_strKey, uint32_t* a_pu32Number)
{
    const size_t sizet = a_strLine.find(a_strKey);
    if (sizet == std::string::npos)
        return false;
    *a_pu32Number = static_cast<uint32_t>(std::atoi(a_strLine.c_str() + sizet + a_strKey.size()));
    return true;
}

static bool IsNextLine(const std::string& a_strLine, std::vector<uint32_t>& a_vecu32Next)
{
    uint32_t u32Thread = 0;
    uint32_t u32Line = 0;
    const std::string strLine = a_strLine.substr(0, a_strLine.find_last_not_of('\r') + 1);
    return NumberBehind(strLine, "thread ", &u32Thread) && NumberBehind(strLine, " line ", &u32Line) &&
           strLine.ends_with(BENCH_LINEEND) && u32Thread < a_vecu32Next.size() && a_vecu32Next[u32Thread]++ == u32Line;
}

// Whether every line of every thread is there, whole and in the thread's order. What a logger writes before the first
// of them is its own.
static bool HasEveryLine(const std::string& a_strPath, const LineRun& a_linerun)
{
    std::vector<uint32_t> vecu32Next(a_linerun.u32Threads);
    std::ifstream stream(a_strPath, std::ios::binary);
    std::string strLine;
    bool blBegun = false;
    while (std::getline(stream, strLine))
    {
        blBegun = blBegun || strLine.find("thread ") != std::string::npos;
        if (blBegun && !IsNextLine(strLine, vecu32Next))
            return false;
    }
    return vecu32Next == std::vector<uint32_t>(a_linerun.u32Threads, a_linerun.u32Lines);
}

static bool WaitForEveryLine(const std::string& a_strPath, const LineRun& a_linerun)
{
    for (int i = 0; i < 1000; ++i)
    {
        if (HasEveryLine(a_strPath, a_linerun))
            return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return false;
}

// ------------------------------------------------------------------------------------------------------ the writers

static void LogLine(uint32_t a_u32Thread, uint32_t a_u32Line)
{
    OSLOG(OS_LOG_NOTE, "thread %u line %06u event <%s> signalled after %u ms, %u waiters", a_u32Thread, a_u32Line,
          BENCH_EVENT, BENCH_MILLISECONDS, BENCH_WAITERS);
}

// The bytes of a line that the logger wrote, in which a bare writer only changes the two numbers.
class BareLine
{
public:
    static void Learn(const std::string& a_strLogFile)
    {
        const std::string strText = ReadFile(a_strLogFile);
        g_strLine = strText.substr(strText.rfind('\n', strText.size() - 2) + 1);
        g_sizetThread = g_strLine.find("thread ") + std::strlen("thread ");
        g_sizetLine = g_strLine.find(" line ") + std::strlen(" line ");
    }
    BareLine(uint32_t a_u32Thread, uint32_t a_u32Line) : m_strLine(g_strLine)
    {
        m_strLine[g_sizetThread] = static_cast<char>('0' + a_u32Thread);
        for (size_t sizet = 6; sizet-- != 0; a_u32Line /= 10)
            m_strLine[g_sizetLine + sizet] = static_cast<char>('0' + a_u32Line % 10);
    }
    const char* Data() const { return m_strLine.data(); }
    size_t Size() const { return m_strLine.size(); }

private:
    static inline std::string g_strLine;
    static inline size_t g_sizetThread;
    static inline size_t g_sizetLine;

    std::string m_strLine;
};

// Without a collector: a start makes a client if the logger has none.
static void StartAlone(const std::string& a_strPath)
{
    OsLogGet()->Start(a_strPath.c_str(), 0, "");
    OsLogGet()->TakeCollector(nullptr);
}

// The line before the others takes the header along, which is not part of their price.
static double LogToFile(const std::string& a_strPath, const LineRun& a_linerun)
{
    StartAlone(a_strPath);
    OSLOG(OS_LOG_NOTE, "begin");
    return SecondsOfLines(a_linerun, LogLine);
}

static double AppendBare(const std::string& a_strPath, const LineRun& a_linerun)
{
    return SecondsOfLines(a_linerun, [&](uint32_t a_u32Thread, uint32_t a_u32Line) {
        const BareLine bareline(a_u32Thread, a_u32Line);
        const int iFile = open(a_strPath.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0666);
        [[maybe_unused]] const ssize_t iWritten = write(iFile, bareline.Data(), bareline.Size());
        close(iFile);
    });
}

static double RunPeer(const char* a_szProgram, const std::string& a_strPath, const LineRun& a_linerun)
{
    Target target;
    std::string strReply;
    const bool blReplied = target.Spawn(
        {OwnProgram(a_szProgram), a_strPath, std::to_string(a_linerun.u32Threads), std::to_string(a_linerun.u32Lines)},
        &strReply);
    return blReplied ? std::atof(strReply.c_str() + std::strlen("<lc>")) : 0;
}

// ------------------------------------------------------------------------------------------------------ comparisons

struct Writer
{
    std::string strName;
    std::function<double(const std::string&, const LineRun&)> write;   // seconds
    double dLimit;                                                     // of our ratio to it, 0 for none
};

// The first writer is ours. Returns false when a line of ours or of a bare writer is lost.
static bool Compare(const std::vector<Writer>& a_vecwriter, const LineRun& a_linerun, const std::string& a_strFolder,
                    int a_iRounds)
{
    std::vector<std::vector<double>> vecvecdSeconds(a_vecwriter.size());
    std::vector<std::vector<double>> vecvecdRatio(a_vecwriter.size());
    bool blEveryLine = true;
    static int g_iFile = 0;
    for (int iRound = 0; iRound < a_iRounds; ++iRound)
    {
        for (size_t sizet = 0; sizet < a_vecwriter.size(); ++sizet)
        {
            const std::string strPath = a_strFolder + "/" + std::to_string(g_iFile++) + ".log";
            vecvecdSeconds[sizet].push_back(a_vecwriter[sizet].write(strPath, a_linerun));
            vecvecdRatio[sizet].push_back(vecvecdSeconds[0].back() / vecvecdSeconds[sizet].back());
            if (!WaitForEveryLine(strPath, a_linerun))
            {
                std::printf("%s: NOT EVERY LINE IS WHOLE AND THERE\n", a_vecwriter[sizet].strName.c_str());
                blEveryLine = false;
            }
            std::filesystem::remove(strPath);
        }
    }
    const double dLines = double{1} * a_linerun.u32Threads * a_linerun.u32Lines;
    std::printf("%u threads  %-9s %6.0f ns a line", a_linerun.u32Threads, a_vecwriter[0].strName.c_str(),
                Median(vecvecdSeconds[0]) / dLines * 1e9);
    for (size_t sizet = 1; sizet < a_vecwriter.size(); ++sizet)
    {
        const double dRatio = Median(vecvecdRatio[sizet]);
        const double dLimit = a_vecwriter[sizet].dLimit;
        std::printf(" | x%.2f of %s (%.0f ns)%s", dRatio, a_vecwriter[sizet].strName.c_str(),
                    Median(vecvecdSeconds[sizet]) / dLines * 1e9,
                    dLimit > 0 ? (", " + Verdict(dRatio, dLimit)).c_str() : "");
    }
    std::printf("\n");
    std::fflush(stdout);
    return blEveryLine;
}

bool BenchFileLines(const std::string& a_strFolder, int a_iRounds)
{
    std::printf("\n== Lines into a file, against open, append and close of the same bytes, and against the peers\n");
    const std::string strFirst = a_strFolder + "/first.log";
    LogToFile(strFirst, {1, 1});
    BareLine::Learn(strFirst);

    std::vector<Writer> vecwriter = {{"logger", LogToFile, 0}, {"bare", AppendBare, g_dBareLimit}};
    for (const char* szPeer : {"spdlog", "glog"})
    {
        const std::string strProgram = std::string("peer_") + szPeer;
        if (!std::filesystem::exists(OwnProgram(strProgram.c_str())))
        {
            std::printf("%s is not installed (./bench.sh --peers installs it)\n", szPeer);
            continue;
        }
        vecwriter.push_back({szPeer,
                             [strProgram](const std::string& a_strPath, const LineRun& a_linerun) {
                                 return RunPeer(strProgram.c_str(), a_strPath, a_linerun);
                             },
                             g_dLevel});
    }
    bool blEveryLine = true;
    for (const uint32_t u32Threads : {1u, 2u, 4u, 8u})
    {
        for (Writer& writer : vecwriter)
        {
            if (writer.strName == "spdlog")
                writer.dLimit = u32Threads == 1 ? 0 : g_dLevel;
        }
        blEveryLine &= Compare(vecwriter, {u32Threads, g_u32LinesOfRun / u32Threads}, a_strFolder, a_iRounds);
    }
    return blEveryLine;
}

// -------------------------------------------------------------------------------------------------------- collector

static COsLogCollector* ConnectClient(const LoadTarget& a_loadtarget, const std::string& a_strPath)
{
    auto* const possocket = new COsSocket;
    const std::string strPort = std::to_string(a_loadtarget.vecu16Port[0]);
    possocket->SocketConnect({.szPort = strPort.c_str(), .blNoDelay = true});
    auto* const poslogcollector = new COsLogCollector(OS_COLLECTORMODE_PRIVATECLIENT, a_strPath.c_str());
    poslogcollector->TakeClientSocket(possocket);
    char szHeader[OS_LC_HEADERSIZE];
    OsLcBuildHeader(szHeader, sizeof szHeader, a_strPath.c_str());
    poslogcollector->ClientWrite(szHeader, std::strlen(szHeader));
    return poslogcollector;
}

// What a line costs depends on the collector: one that waits must be woken. So both are measured.
template <class Work>
static double SecondsOfSends(bool a_blWaits, const LineRun& a_linerun, Work a_work)
{
    return a_blWaits ? SecondsOfSingleLines(a_linerun.u32Lines, a_work) : SecondsOfLines(a_linerun, a_work);
}

static double LogToCollector(const LoadTarget& a_loadtarget, bool a_blWaits, const std::string& a_strPath,
                             const LineRun& a_linerun)
{
    OsLogGet()->Start(a_strPath.c_str(), 0, "");
    OsLogGet()->TakeCollector(ConnectClient(a_loadtarget, a_strPath));
    OSLOG(OS_LOG_NOTE, "begin");
    return SecondsOfSends(a_blWaits, a_linerun, LogLine);
}

static double SendBare(const LoadTarget& a_loadtarget, bool a_blWaits, const std::string& a_strPath,
                       const LineRun& a_linerun)
{
    const int iSocket = OpenStream(a_loadtarget, a_strPath, true);
    const double dSeconds = SecondsOfSends(a_blWaits, a_linerun, [&](uint32_t a_u32Thread, uint32_t a_u32Line) {
        const BareLine bareline(a_u32Thread, a_u32Line);
        SendAll(iSocket, bareline.Data(), bareline.Size());
    });
    close(iSocket);
    return dSeconds;
}

bool BenchCollectorLines(const std::string& a_strFolder, int a_iRounds)
{
    std::printf("\n== Lines to a collector, against a send of the same bytes with the same options\n");
    const auto target = g_vectargetkind[0].pfnStart(a_strFolder, 1);
    if (!target)
        return false;
    // The collector ends with the last stream of its application.
    const int iStream = OpenStream(target->loadtarget, a_strFolder + "/stream.log", true);
    bool blEveryLine = true;
    const struct
    {
        const char* szTitle;
        bool blWaits;
        LineRun linerun;
        double dLimit;
    } arow[] = {
        {"collector waits for each line", true, {1, g_u32SingleLines}, g_dSendLimit},
        {"as fast as it goes", false, {1, g_u32LinesOfRun}, g_dSendLimit},
        {"as fast as it goes", false, {8, g_u32LinesOfRun / 8}, g_dSendTogetherLimit},
    };
    for (const auto& row : arow)
    {
        const auto with = [&](auto a_pfn) {
            return [&, a_pfn](const std::string& a_strPath, const LineRun& a_linerun) {
                return a_pfn(target->loadtarget, row.blWaits, a_strPath, a_linerun);
            };
        };
        std::printf("%-30s", row.szTitle);
        blEveryLine &= Compare({{"logger", with(LogToCollector), 0}, {"bare", with(SendBare), row.dLimit}}, row.linerun,
                               a_strFolder, a_iRounds);
    }
    OsLogGet()->TakeCollector(nullptr);
    close(iStream);
    return blEveryLine;
}
