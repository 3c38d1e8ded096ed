// ring_bench.cpp: a channel of shared memory against a pipe, with the same writes, in one run.
//
//     ring_bench [rounds [megabytes]]
//
// One process writes records of 1 to 100,000 bytes, another reads them and compares every byte. Each round runs the
// pipe and the channel in both directions; a figure is the median. Exit code 1 when a byte differs or a side fails.
#include "../tests/ring_support.h"
#include "os_cosmem.h"
#include "os_cossocket.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

static constexpr uint32_t g_u32Longest = 100000;

static uint64_t g_u64Bytes = uint64_t{1000} << 20;

using WriteRecord = std::function<bool(const char* a_pchBytes, int32_t a_i32Length)>;
using ReadBytes = std::function<int32_t(char* a_pchBuffer, int32_t a_i32Size)>;   // how many, 0 at the end

static bool WriteAll(const WriteRecord& a_writerecord)
{
    RecordStream recordstream(g_u32Longest);
    for (uint64_t u64Done = 0; u64Done < g_u64Bytes;)
    {
        const int32_t i32Length = static_cast<int32_t>(
            std::min<uint64_t>(static_cast<uint64_t>(recordstream.NextLength()), g_u64Bytes - u64Done));
        if (!a_writerecord(recordstream.At(u64Done), i32Length))
            return false;
        u64Done += static_cast<uint64_t>(i32Length);
    }
    return true;
}

static bool ReadAll(const ReadBytes& a_readbytes)
{
    const RecordStream recordstream(g_u32Longest);
    std::vector<char> vecch(g_u32Longest);
    for (uint64_t u64Done = 0; u64Done < g_u64Bytes;)
    {
        const int32_t i32Read = a_readbytes(vecch.data(), static_cast<int32_t>(vecch.size()));
        if (i32Read <= 0 || !recordstream.Is(vecch.data(), static_cast<size_t>(i32Read), u64Done))
            return false;
        u64Done += static_cast<uint64_t>(i32Read);
    }
    return true;
}

// Runs the other side in a process of its own and this side here. MB/s, or 0 when one of them fails.
static double Measure(const std::function<bool()>& a_prepare, const std::function<bool()>& a_there,
                      const std::function<bool()>& a_here)
{
    int aiReady[2];
    if (pipe(aiReady) != 0)
        return 0;
    const pid_t pid = fork();
    char ch = 0;
    if (pid == 0)
    {
        const COsMem osmem;
        _exit(read(aiReady[0], &ch, 1) == 1 && a_there() ? 0 : 1);
    }
    bool blDone = a_prepare() && write(aiReady[1], &ch, 1) == 1;
    const auto begin = std::chrono::steady_clock::now();
    blDone = blDone && a_here();
    const std::chrono::duration<double> seconds = std::chrono::steady_clock::now() - begin;
    close(aiReady[0]);
    close(aiReady[1]);
    int iStatus = 1;
    waitpid(pid, &iStatus, 0);
    return blDone && iStatus == 0 ? static_cast<double>(g_u64Bytes) / 1e6 / seconds.count() : 0;
}

static double MeasurePipe()
{
    int aiPipe[2];
    if (pipe(aiPipe) != 0)
        return 0;
    const auto writeAll = [&] {
        return WriteAll([&](const char* a_pch, int32_t a_i32) {
            return write(aiPipe[1], a_pch, static_cast<size_t>(a_i32)) == a_i32;
        });
    };
    const auto readAll = [&] {
        return ReadAll([&](char* a_pch, int32_t a_i32) {
            return static_cast<int32_t>(read(aiPipe[0], a_pch, static_cast<size_t>(a_i32)));
        });
    };
    const double dRate = Measure([] { return true; }, writeAll, readAll);
    close(aiPipe[0]);
    close(aiPipe[1]);
    return dRate;
}

// The socket's side, which connects to a channel.
static bool WriteToSocket(const std::string& a_strFile)
{
    COsSocket possocket;
    return possocket.SocketConnect({.szHost = "@SHAREDMEMORY", .szPort = a_strFile.c_str()}) == EOSSTS_SUCCESS &&
           WriteAll([&](const char* a_pch, int32_t a_i32) {
               return possocket.SocketWrite({.pvBuffer = a_pch, .sizetBuffer = static_cast<size_t>(a_i32)}, nullptr) ==
                      EOSSTS_SUCCESS;
           });
}

static bool ReadFromSocket(const std::string& a_strFile)
{
    COsSocket possocket;
    size_t sizetDirty = 0;
    return possocket.SocketConnect({.szHost = "@SHAREDMEMORY", .szPort = a_strFile.c_str()}) == EOSSTS_SUCCESS &&
           ReadAll([&](char* a_pch, int32_t a_i32) {
               size_t sizetRead = 0;
               possocket.SocketRead(
                   {.pvBuffer = a_pch, .sizetBuffer = static_cast<size_t>(a_i32), .psizetDirty = &sizetDirty},
                   &sizetRead);
               return static_cast<int32_t>(sizetRead);
           });
}

static double MeasureChannel(const std::string& a_strFolder, bool a_blSocketWrites)
{
    const std::string strFile = a_strFolder + (a_blSocketWrites ? "/r.socket" : "/w.socket");
    CreatedChannel createdchannel;
    const auto create = [&] { return createdchannel.Create(strFile, !a_blSocketWrites, false); };
    if (a_blSocketWrites)
    {
        return Measure(
            create, [&] { return WriteToSocket(strFile); },
            [&] { return ReadAll([&](char* a_pch, int32_t a_i32) { return createdchannel.Read(a_pch, a_i32); }); });
    }
    return Measure(
        create, [&] { return ReadFromSocket(strFile); },
        [&] { return WriteAll([&](const char* a_pch, int32_t a_i32) { return createdchannel.Write(a_pch, a_i32); }); });
}

static double Median(std::vector<double> a_vecd)
{
    std::sort(a_vecd.begin(), a_vecd.end());
    return a_vecd[a_vecd.size() / 2];
}

int main(int a_iArguments, char** a_ppchArguments)
{
    const int iRounds = a_iArguments > 1 ? std::max(1, std::atoi(a_ppchArguments[1])) : 3;
    if (a_iArguments > 2)
        g_u64Bytes = static_cast<uint64_t>(std::max(1, std::atoi(a_ppchArguments[2]))) << 20;
    std::string strFolder = std::string(access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp") + "/ring.XXXXXX";
    if (!mkdtemp(strFolder.data()))
        return 1;

    const COsMem osmem;
    std::vector<double> avecd[3];
    for (int iRound = 0; iRound < iRounds; ++iRound)
    {
        avecd[0].push_back(MeasurePipe());
        avecd[1].push_back(MeasureChannel(strFolder, true));
        avecd[2].push_back(MeasureChannel(strFolder, false));
    }
    std::filesystem::remove_all(strFolder);

    const char* const aszName[] = {"pipe", "shared memory, socket writes", "shared memory, socket reads"};
    bool blDone = true;
    std::printf("%llu MB of records of 1 to %u bytes between two processes, every byte compared:\n",
                static_cast<unsigned long long>(g_u64Bytes >> 20), g_u32Longest);
    for (size_t sizet = 0; sizet < 3; ++sizet)
    {
        blDone = blDone && *std::min_element(avecd[sizet].begin(), avecd[sizet].end()) > 0;
        std::printf("  %-30s %8.0f MB/s   %.2f of the pipe\n", aszName[sizet], Median(avecd[sizet]),
                    Median(avecd[sizet]) / Median(avecd[0]));
    }
    return blDone ? 0 : 1;
}
