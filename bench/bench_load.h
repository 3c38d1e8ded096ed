// bench_load.h: the load: streams of lines, sent as fast as they are taken, and the check of every byte.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

inline constexpr size_t BENCH_LINESIZE = 180;

struct Load
{
    uint32_t u32Streams;
    size_t sizetSend;   // bytes of one send
    bool blNoDelay;
    size_t sizetBytes;   // of each stream, whole lines
};

// Where the streams go: for each its port, and whether a header names its file.
struct LoadTarget
{
    std::vector<uint16_t> vecu16Port;   // one for all streams, or one for each
    bool blHeader;
    std::string strFolder;
    bool blNamedByStream;   // else the file is named by the sender's port
};

struct LoadResult
{
    bool blEveryByte;
    double dSeconds;   // from the first byte sent to the last byte in its file
};

LoadResult RunLoad(const Load& a_load, const LoadTarget& a_loadtarget);

// Opens one connection and sends its header.
int OpenStream(const LoadTarget& a_loadtarget, const std::string& a_strPath, bool a_blNoDelay);
bool SendAll(int a_iSocket, const char* a_pchText, size_t a_sizetText);

// Opens so many connections, each of which sends a header and one line, waits until all lines are in their files, and
// keeps the connections open. Empty when one of them failed.
std::vector<int> OpenIdle(uint32_t a_u32Connections, const LoadTarget& a_loadtarget);
