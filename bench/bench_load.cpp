// bench_load.cpp: sender threads, waiting for the files, comparing them.
#include "bench_load.h"

#include "bench_support.h"

#include <algorithm>
#include <arpa/inet.h>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

using Clock = std::chrono::steady_clock;

static constexpr auto g_patience = std::chrono::seconds(10);

// A line tells its number and ends in a line feed, so that a lost, doubled or torn one shows.
static std::string StreamText(size_t a_sizetBytes)
{
    std::string strText;
    strText.reserve(a_sizetBytes);
    for (uint32_t u32Line = 0; strText.size() < a_sizetBytes; ++u32Line)
    {
        char szLine[BENCH_LINESIZE + 1];
        const int iLength = std::snprintf(szLine, sizeof szLine, "%010u ", u32Line);
        std::memset(szLine + iLength, 'a' + static_cast<int>(u32Line % 26),
                    sizeof szLine - static_cast<size_t>(iLength));
        szLine[BENCH_LINESIZE - 1] = '\n';
        strText.append(szLine, BENCH_LINESIZE);
    }
    return strText;
}

static std::string StreamPath(const LoadTarget& a_loadtarget, uint32_t a_u32Stream, int a_iSocket)
{
    if (a_loadtarget.blNamedByStream)
        return a_loadtarget.strFolder + "/" + std::to_string(a_u32Stream) + ".log";
    sockaddr_in address{};
    socklen_t size = sizeof address;
    getsockname(a_iSocket, reinterpret_cast<sockaddr*>(&address), &size);
    return a_loadtarget.strFolder + "/" + std::to_string(ntohs(address.sin_port)) + ".log";
}

static int Connect(uint16_t a_u16Port, bool a_blNoDelay)
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(a_u16Port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const int iSocket = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int iNoDelay = a_blNoDelay;
    setsockopt(iSocket, IPPROTO_TCP, TCP_NODELAY, &iNoDelay, sizeof iNoDelay);
    if (connect(iSocket, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0)
        return iSocket;
    close(iSocket);
    return -1;
}

bool SendAll(int a_iSocket, const char* a_pchText, size_t a_sizetText)
{
    while (a_sizetText != 0)
    {
        const ssize_t iSent = send(a_iSocket, a_pchText, a_sizetText, MSG_NOSIGNAL);
        if (iSent <= 0)
            return false;
        a_pchText += iSent;
        a_sizetText -= static_cast<size_t>(iSent);
    }
    return true;
}

static bool SendHeader(int a_iSocket, const LoadTarget& a_loadtarget, const std::string& a_strPath)
{
    const std::string strHeader = "<log><logfile><![CDATA[" + a_strPath + "]]></logfile></log>";
    return !a_loadtarget.blHeader || SendAll(a_iSocket, strHeader.data(), strHeader.size());
}

static uint16_t PortOf(const LoadTarget& a_loadtarget, uint32_t a_u32Stream)
{
    return a_loadtarget.vecu16Port[a_u32Stream % a_loadtarget.vecu16Port.size()];
}

static size_t FileSize(const std::string& a_strPath)
{
    struct stat status
    {
    };
    return stat(a_strPath.c_str(), &status) == 0 ? static_cast<size_t>(status.st_size) : 0;
}

static bool WaitForSize(const std::string& a_strPath, size_t a_sizetBytes)
{
    const auto end = Clock::now() + g_patience;
    while (FileSize(a_strPath) < a_sizetBytes)
    {
        if (Clock::now() > end)
            return false;
        std::this_thread::sleep_for(std::chrono::microseconds(500));
    }
    return true;
}

int OpenStream(const LoadTarget& a_loadtarget, const std::string& a_strPath, bool a_blNoDelay)
{
    const int iSocket = Connect(PortOf(a_loadtarget, 0), a_blNoDelay);
    SendHeader(iSocket, a_loadtarget, a_strPath);
    return iSocket;
}

LoadResult RunLoad(const Load& a_load, const LoadTarget& a_loadtarget)
{
    const std::string strText = StreamText(a_load.sizetBytes);
    std::vector<std::string> vecstrPath(a_load.u32Streams);
    std::vector<int> veciSocket(a_load.u32Streams);
    bool blConnected = true;
    for (uint32_t u32 = 0; u32 < a_load.u32Streams; ++u32)
    {
        veciSocket[u32] = Connect(PortOf(a_loadtarget, u32), a_load.blNoDelay);
        vecstrPath[u32] = StreamPath(a_loadtarget, u32, veciSocket[u32]);
        blConnected = blConnected && veciSocket[u32] >= 0 && SendHeader(veciSocket[u32], a_loadtarget, vecstrPath[u32]);
    }

    const auto start = Clock::now();
    std::vector<std::thread> vecthread;
    for (int iSocket : veciSocket)
    {
        vecthread.emplace_back([&, iSocket] {
            for (size_t sizet = 0; sizet < strText.size(); sizet += a_load.sizetSend)
            {
                if (!SendAll(iSocket, strText.data() + sizet, std::min(a_load.sizetSend, strText.size() - sizet)))
                    break;
            }
            shutdown(iSocket, SHUT_WR);
        });
    }
    for (std::thread& thread : vecthread)
        thread.join();
    bool blEveryByte = blConnected;
    for (const std::string& strPath : vecstrPath)
        blEveryByte = blEveryByte && WaitForSize(strPath, strText.size());
    const double dSeconds = std::chrono::duration<double>(Clock::now() - start).count();

    for (uint32_t u32 = 0; u32 < a_load.u32Streams; ++u32)
    {
        blEveryByte = blEveryByte && ReadFile(vecstrPath[u32]) == strText;
        close(veciSocket[u32]);
    }
    return {blEveryByte, dSeconds};
}

std::vector<int> OpenIdle(uint32_t a_u32Connections, const LoadTarget& a_loadtarget)
{
    const std::string strLine = StreamText(BENCH_LINESIZE);
    std::vector<int> veciSocket;
    for (uint32_t u32 = 0; u32 < a_u32Connections; ++u32)
    {
        const int iSocket = Connect(PortOf(a_loadtarget, u32), false);
        const std::string strPath = StreamPath(a_loadtarget, u32, iSocket);
        veciSocket.push_back(iSocket);
        if (iSocket < 0 || !SendHeader(iSocket, a_loadtarget, strPath) ||
            !SendAll(iSocket, strLine.data(), strLine.size()) || !WaitForSize(strPath, strLine.size()))
            return {};
    }
    return veciSocket;
}
