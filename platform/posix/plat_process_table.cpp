// plat_process_table.cpp: what the system's tables tell about other processes and about connections.
#include "plat_posix.h"
#include "plat_process.h"
#include "plat_socket.h"

#include <cinttypes>
#include <climits>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <netinet/in.h>
#include <netinet/tcp.h>

// The program's name, which comes second in brackets, may hold anything. The state is the first field behind it, the
// start time the 20th.
bool PlatProcessStartTime(uint64_t a_u64ProcessId, uint64_t* a_pu64StartTime)
{
    if (a_u64ProcessId == 0 || a_u64ProcessId > INT_MAX)
        return PosixFail(PLAT_ERROR_INVALIDPARAMETER);
    const PosixDescriptor posixdescriptor(
        open(("/proc/" + std::to_string(a_u64ProcessId) + "/stat").c_str(), O_RDONLY | O_CLOEXEC));
    char szLine[1024];
    const ssize_t ssizetRead = posixdescriptor.IsOpen()
                                   ? PosixRetry([&] { return read(posixdescriptor.Get(), szLine, sizeof szLine - 1); })
                                   : -1;
    szLine[ssizetRead > 0 ? ssizetRead : 0] = 0;
    const char* const szBehind = strrchr(szLine, ')');
    char chState = 'X';
    const bool blRead = szBehind && sscanf(szBehind + 1,
                                           " %c %*d %*d %*d %*d %*d %*u %*u %*u %*u %*u %*u %*u %*d %*d %*d %*d %*d "
                                           "%*d %" SCNu64,
                                           &chState, a_pu64StartTime) == 2;
    return (blRead && chState != 'Z' && chState != 'X') || PosixFail(PLAT_ERROR_INVALIDPARAMETER);
}

// A row is "number: address:port address:port state ...", all in hexadecimal.
bool PlatSocketCountConnections(uint16_t a_u16Port, uint32_t* a_pu32Count)
{
    const std::unique_ptr<FILE, int (*)(FILE*)> uniqueTable(fopen("/proc/self/net/tcp", "re"), fclose);
    if (!uniqueTable)
        return PosixFailErrno();
    *a_pu32Count = 0;
    char szLine[512];
    while (fgets(szLine, sizeof szLine, uniqueTable.get()))
    {
        unsigned uAddress = 0;
        unsigned uPort = 0;
        unsigned uState = 0;
        const bool blRow = sscanf(szLine, " %*d: %x:%x %*x:%*x %x", &uAddress, &uPort, &uState) == 3;
        if (blRow && uPort == a_u16Port && uAddress == htonl(INADDR_LOOPBACK) &&
            (uState == TCP_ESTABLISHED || uState == TCP_CLOSE_WAIT))
            ++*a_pu32Count;
    }
    return true;
}
