// stream_files.cpp: a small application. It starts its collector, streams files into it concurrently, each as a log of
// its own, and compares the result byte by byte.
//
//     stream_files COLLECTOR FOLDER FILE...
//
// Prints one line for each file and a summary. Exit code 1 when a byte differs or a stream was lost.
#include "collector_process.h"

#include "os_coslogcollector_protocol.h"
#include "os_cosmem.h"
#include "os_cossocket.h"
#include "os_scope.h"

#include "plat_process.h"
#include "plat_system.h"
#include "plat_wait.h"

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

static constexpr size_t g_sizetSend = 65536;
static constexpr uint32_t g_u32ArriveTimeout = 20000;

struct Stream
{
    std::string strSource;
    std::string strLog;
    std::string strContent;
    bool blSent = false;
    bool blEqual = false;
};

static std::string ReadWholeFile(const std::string& a_strPath)
{
    std::ifstream stream(a_strPath, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
}

static bool SendAll(COsSocket& a_ossocket, const std::string& a_strText)
{
    size_t sizetSent = 0;
    while (sizetSent < a_strText.size())
    {
        COsSocket::WriteArgs writeargs;
        writeargs.pvBuffer = a_strText.data() + sizetSent;
        writeargs.sizetBuffer = std::min(g_sizetSend, a_strText.size() - sizetSent);
        size_t sizetPiece = 0;
        if (a_ossocket.SocketWrite(writeargs, &sizetPiece) != EOSSTS_SUCCESS)
            return false;
        sizetSent += sizetPiece;
    }
    return true;
}

static void SendStream(uint16_t a_u16Port, Stream& a_stream)
{
    char szHeader[OS_LC_HEADERSIZE];
    COsSocket ossocket;
    COsSocket::ConnectArgs connectargs;
    const std::string strPort = std::to_string(a_u16Port);
    connectargs.szHost = OS_LC_HOST;
    connectargs.szPort = strPort.c_str();
    connectargs.szName = "stream_files";
    a_stream.blSent = OsLcBuildHeader(szHeader, sizeof szHeader, a_stream.strLog.c_str()) == EOSSTS_SUCCESS &&
                      ossocket.SocketConnect(connectargs) == EOSSTS_SUCCESS && SendAll(ossocket, szHeader) &&
                      SendAll(ossocket, a_stream.strContent);
    ossocket.SocketDisconnect(true);
}

// The collector may still be writing after the last byte was sent: wait for the size, then compare.
static bool HasArrived(const Stream& a_stream)
{
    const uint64_t u64End = PlatTicks() + g_u32ArriveTimeout;
    std::error_code error;
    while (std::filesystem::file_size(a_stream.strLog, error) != a_stream.strContent.size() && PlatTicks() < u64End)
        PlatSleep(1);
    return !error && ReadWholeFile(a_stream.strLog) == a_stream.strContent;
}

static std::vector<Stream> LoadStreams(const std::string& a_strFolder, int a_iFiles, char** a_aszFile)
{
    std::vector<Stream> vecstream;
    for (int i = 0; i < a_iFiles; ++i)
    {
        Stream stream;
        stream.strSource = a_aszFile[i];
        std::string strName = stream.strSource;
        std::replace(strName.begin(), strName.end(), '/', '_');
        stream.strLog = a_strFolder + "/" + std::to_string(i + 1) + strName + ".log";
        stream.strContent = ReadWholeFile(stream.strSource);
        vecstream.push_back(std::move(stream));
    }
    return vecstream;
}

// An extra stream stays open until everything is compared, so that the collector does not end with the last file.
static uint64_t StreamAll(uint16_t a_u16Port, std::vector<Stream>& a_vecstream)
{
    const uint64_t u64Start = PlatTicks();
    std::vector<std::thread> vecthread;
    for (Stream& stream : a_vecstream)
        vecthread.emplace_back([a_u16Port, &stream] { SendStream(a_u16Port, stream); });
    for (std::thread& thread : vecthread)
        thread.join();
    for (Stream& stream : a_vecstream)
        stream.blEqual = stream.blSent && HasArrived(stream);
    return PlatTicks() - u64Start;
}

static bool Report(const std::vector<Stream>& a_vecstream, uint64_t a_u64Milliseconds)
{
    uint64_t u64Bytes = 0;
    bool blEqual = true;
    for (const Stream& stream : a_vecstream)
    {
        std::printf("  %-9s %11zu bytes  %s\n             -> %s\n", stream.blEqual ? "equal" : "DIFFERENT",
                    stream.strContent.size(), stream.strSource.c_str(), stream.strLog.c_str());
        u64Bytes += stream.strContent.size();
        blEqual = blEqual && stream.blEqual;
    }
    std::printf("%zu streams, %llu bytes in %llu ms: %.0f MB/s\n", a_vecstream.size(),
                static_cast<unsigned long long>(u64Bytes), static_cast<unsigned long long>(a_u64Milliseconds),
                static_cast<double>(u64Bytes) / 1000.0 / static_cast<double>(std::max<uint64_t>(a_u64Milliseconds, 1)));
    return blEqual;
}

int main(int a_iArguments, char** a_aszArgument)
{
    if (a_iArguments < 4)
    {
        std::fprintf(stderr, "usage: stream_files COLLECTOR FOLDER FILE...\n");
        return 2;
    }
    const COsMem osmem;
    const ScopeGuard cleanup([] { OsSocketCleanupStatic(); });
    CollectorProcess collector;
    if (!collector.StartFor(a_aszArgument[1], PlatProcessId()))
    {
        std::fprintf(stderr, "The collector did not start.\n");
        return 1;
    }
    std::printf("collector: process %llu, port %u on 127.0.0.1, for application %llu\n",
                static_cast<unsigned long long>(collector.ProcessId()), static_cast<unsigned>(collector.Port()),
                static_cast<unsigned long long>(PlatProcessId()));

    std::vector<Stream> vecstream = LoadStreams(a_aszArgument[2], a_iArguments - 3, a_aszArgument + 3);
    bool blEqual = false;
    {
        COsSocket ossocketKeep;
        COsSocket::ConnectArgs connectargs;
        const std::string strPort = std::to_string(collector.Port());
        connectargs.szPort = strPort.c_str();
        ossocketKeep.SocketConnect(connectargs);
        blEqual = Report(vecstream, StreamAll(collector.Port(), vecstream));
    }
    const bool blEnded = collector.WaitForExit(10000) == 0;
    std::printf("collector: %s after its last stream\n", blEnded ? "ended" : "DID NOT END");
    return blEqual && blEnded ? 0 : 1;
}
