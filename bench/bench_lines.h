// bench_lines.h: the line that every logger of the run writes, by how many threads, and how long that takes. The peers'
// programs are built with it too.
#pragma once

#include <algorithm>
#include <barrier>
#include <chrono>
#include <cstdint>
#include <thread>
#include <vector>

struct LineRun
{
    uint32_t u32Threads;
    uint32_t u32Lines;   // of each thread
};

// "thread 1 line 000042 event <ready> signalled after 7 ms, 2 waiters" tells whose it is and which. Formats differ from
// logger to logger, their values do not.
inline constexpr char BENCH_EVENT[] = "Global\\ScannerReady";
inline constexpr unsigned BENCH_MILLISECONDS = 7;
inline constexpr unsigned BENCH_WAITERS = 2;
inline constexpr char BENCH_LINEEND[] = " waiters";

// Seconds that so many lines take, each of which finds whoever receives them waiting again: the median, times the
// lines.
template <class Work>
double SecondsOfSingleLines(uint32_t a_u32Lines, Work a_work)
{
    using Clock = std::chrono::steady_clock;
    static constexpr auto g_pause = std::chrono::microseconds(50);
    std::vector<double> vecdSeconds;
    for (uint32_t u32Line = 0; u32Line < a_u32Lines; ++u32Line)
    {
        std::this_thread::sleep_for(g_pause);
        const auto start = Clock::now();
        a_work(0, u32Line);
        vecdSeconds.push_back(std::chrono::duration<double>(Clock::now() - start).count());
    }
    std::nth_element(vecdSeconds.begin(), vecdSeconds.begin() + a_u32Lines / 2, vecdSeconds.end());
    return vecdSeconds[a_u32Lines / 2] * a_u32Lines;
}

// Seconds from the moment when all threads are there to the end of the last. a_work(thread, line) writes a line. The
// threads take the time themselves: whoever waits for them may be late for both.
template <class Work>
double SecondsOfLines(const LineRun& a_linerun, Work a_work)
{
    using Clock = std::chrono::steady_clock;
    std::vector<Clock::time_point> vectime;
    const auto takeTime = [&]() noexcept { vectime.push_back(Clock::now()); };
    std::barrier barrier(static_cast<std::ptrdiff_t>(a_linerun.u32Threads), takeTime);
    std::vector<std::thread> vecthread;
    vecthread.reserve(a_linerun.u32Threads);
    vectime.reserve(2);
    for (uint32_t u32Thread = 0; u32Thread < a_linerun.u32Threads; ++u32Thread)
    {
        vecthread.emplace_back([&, u32Thread] {
            barrier.arrive_and_wait();
            for (uint32_t u32Line = 0; u32Line < a_linerun.u32Lines; ++u32Line)
                a_work(u32Thread, u32Line);
            barrier.arrive_and_wait();
        });
    }
    for (std::thread& thread : vecthread)
        thread.join();
    return std::chrono::duration<double>(vectime[1] - vectime[0]).count();
}
