// logger_calls.cpp: log calls that write nothing, against an empty call with the same arguments; formatting alone.
#include "bench_support.h"
#include "logger_sections.h"

#include "os_coslog.h"
#include "os_coslog_impl.h"
#include "os_cosstring.h"

#include "plat_system.h"
#include "plat_thread.h"

#include <benchmark/benchmark.h>
#include <map>

static constexpr char g_szSource[] = "os/source/os_cosfile";

static constexpr double g_dFilteredLimit = 20;   // nanoseconds more than the empty call
static constexpr double g_dFormatLimit = 600;    // nanoseconds

#define BENCH_ARGUMENTS "sync>>> event <%s> signalled after %u ms, %d waiters", "Global\\ScannerReady", 7u, 2

// ------------------------------------------------------------------------------------------------------- the cases

struct FilteredCase
{
    const char* szName;
    int iState;
    uint32_t u32Flags;
    const char* szFilter;
};

static constexpr FilteredCase g_afilteredcase[] = {
    {"state word suppressed", OS_LOGSTATE_SUPPRESSED, 0, ""},
    {"level not in the flag word", OS_LOGSTATE_ON, OS_LOGFLAG_MILESTONES, ""},
    {"source not in DebugFilter", OS_LOGSTATE_ON, 0, "sock ~cossocketssl"},
    {"source not in a long DebugFilter", OS_LOGSTATE_ON, 0,
     "a1 b1 c1 d1 e1 f1 g1 h1 i1 j1 k1 l1 m1 n1 o1 p1 q1 r1 s1 t1 u1 v1 w1 x1 y1 z1 a2 b2 c2 d2 e2"},
};

static void FilteredCall(benchmark::State& a_state, const FilteredCase& a_filteredcase)
{
    OsLogGet()->Start(nullptr, a_filteredcase.u32Flags, a_filteredcase.szFilter);
    OsLogSetState(a_filteredcase.iState);
    for ([[maybe_unused]] const auto _ : a_state)
        OSLOG(OS_LOG_NOTE, BENCH_ARGUMENTS);
    OsLogSetState(OS_LOGSTATE_ALLOW);
}

static void BareCall(benchmark::State& a_state)
{
    COsLogSink* const poslogsink = g_poslogsink.load();
    for ([[maybe_unused]] const auto _ : a_state)
        EmptyCall(poslogsink, g_szSource, __LINE__, OS_LOG_NOTE, BENCH_ARGUMENTS);
}

static size_t Format(char* a_szBuffer, size_t a_sizetBuffer, const OsLogLinePrefix& a_osloglineprefix,
                     const char* a_szFormat, ...)
{
    char* const szMessage = OsLogPutPrefix(a_szBuffer, a_osloglineprefix);
    va_list valist;
    va_start(valist, a_szFormat);
    const int iLength =
        OsFormat(szMessage, a_sizetBuffer - static_cast<size_t>(szMessage - a_szBuffer), a_szFormat, valist);
    va_end(valist);
    return static_cast<size_t>(szMessage - a_szBuffer + iLength);
}

// Prefix and message of one line, and the clock for it.
static void FormatLine(benchmark::State& a_state)
{
    char achSource[OS_PATHSIZE];
    OsLogLineTime osloglinetime;
    OsLogLinePrefix osloglineprefix{};
    osloglineprefix.pchSource = achSource;
    osloglineprefix.sizetSource = OsLogSourceName(achSource, g_szSource);
    osloglineprefix.u8S = OS_LOGS;
    osloglineprefix.u32Level = OS_LOG_NOTE;
    char szBuffer[1024];
    for ([[maybe_unused]] const auto _ : a_state)
    {
        osloglinetime.Take();
        ++osloglineprefix.i32Number;
        osloglineprefix.ostimerecord = osloglinetime.ostimerecord;
        osloglineprefix.u32Microseconds = osloglinetime.u32Microseconds;
        osloglineprefix.u64ThreadId = PlatThreadId();
        benchmark::DoNotOptimize(Format(szBuffer, sizeof szBuffer, osloglineprefix, BENCH_ARGUMENTS));
        benchmark::ClobberMemory();
    }
}

// ------------------------------------------------------------------------------------------------------ the figures

// Keeps the nanoseconds of processor of every repetition by name.
class Figures final : public benchmark::BenchmarkReporter
{
public:
    bool ReportContext(const Context&) override { return true; }
    void ReportRuns(const std::vector<Run>& a_vecrun) override
    {
        for (const Run& run : a_vecrun)
        {
            if (run.run_type == Run::RT_Iteration)
                m_mapvecd[run.run_name.function_name].push_back(run.GetAdjustedCPUTime());
        }
    }
    double Nanoseconds(const char* a_szName) { return Median(m_mapvecd[a_szName]); }

private:
    std::map<std::string, std::vector<double>> m_mapvecd;
};

static void RunMicroBenchmarks(Figures& a_figures)
{
    char szProgram[] = "logger_bench";
    char szInterleave[] = "--benchmark_enable_random_interleaving=true";
    char szRepetitions[] = "--benchmark_repetitions=15";
    char szTime[] = "--benchmark_min_time=0.02";
    char* aszArgument[] = {szProgram, szInterleave, szRepetitions, szTime, nullptr};
    int iArguments = 4;
    benchmark::Initialize(&iArguments, aszArgument);
    benchmark::RegisterBenchmark("empty", BareCall);
    benchmark::RegisterBenchmark("format", FormatLine);
    for (const FilteredCase& filteredcase : g_afilteredcase)
    {
        benchmark::RegisterBenchmark(filteredcase.szName,
                                     [&](benchmark::State& a_state) { FilteredCall(a_state, filteredcase); });
    }
    benchmark::RunSpecifiedBenchmarks(&a_figures);
    benchmark::Shutdown();
}

bool BenchCalls(const std::string& a_strFolder)
{
    const std::string strLog = a_strFolder + "/calls.log";
    OsLogGet()->Start(strLog.c_str(), 0, "");
    Figures figures;
    RunMicroBenchmarks(figures);

    const double dEmpty = figures.Nanoseconds("empty");
    std::printf("\n== A log call that writes nothing, against an empty call with the same arguments (%.1f ns)\n",
                dEmpty);
    for (const FilteredCase& filteredcase : g_afilteredcase)
    {
        const double dCall = figures.Nanoseconds(filteredcase.szName);
        std::printf("%-34s %6.1f ns  x%.1f, %.1f ns more, %s\n", filteredcase.szName, dCall, dCall / dEmpty,
                    dCall - dEmpty, Verdict(dCall - dEmpty, g_dFilteredLimit).c_str());
    }
    const double dFormat = figures.Nanoseconds("format");
    std::printf("%-34s %6.1f ns  x%.1f, %s\n", "formatting an ordinary line", dFormat, dFormat / dEmpty,
                Verdict(dFormat, g_dFormatLimit).c_str());

    const bool blNothingWritten = ReadFile(strLog).find("sync>>>") == std::string::npos;
    if (!blNothingWritten)
        std::printf("A CALL THAT IS FILTERED OUT HAS WRITTEN.\n");
    return blNothingWritten;
}
