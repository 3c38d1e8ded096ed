// os_cossocket_shared_io.cpp: reading and writing channels of shared memory.
#include "os_cossocket_shared_impl.h"
#include "os_log.h"

#include "plat_system.h"

#include <algorithm>
#include <cstdint>

static constexpr char g_szSource[] = "os/source/os_cossocket";

static int32_t RingLength(size_t a_sizetBytes)
{
    return static_cast<int32_t>(std::min<size_t>(a_sizetBytes, INT32_MAX));
}

// The rest of a timeout that began at a_u64Begin.
static uint32_t TimeLeft(uint32_t a_u32Timeout, uint64_t a_u64Begin)
{
    if (a_u32Timeout == OS_INFINITE)
        return OS_INFINITE;
    const uint64_t u64Gone = PlatTicks() - a_u64Begin;
    return u64Gone < a_u32Timeout ? static_cast<uint32_t>(a_u32Timeout - u64Gone) : 0;
}

// Waits for the other side. EOSSTS_EXITED: its process has ended; EOSSTS_DISCONNECTED: this side is being released.
EOSSTS SocketShared::AwaitPeer(SocketChannel* a_psocketchannel, uint32_t a_u32Timeout, bool a_blLogging)
{
    const EOSSTS eossts = m_blClosing ? EOSSTS_SUCCESS : a_psocketchannel->Await(a_u32Timeout);
    if (m_blClosing)
        return EOSSTS_DISCONNECTED;
    switch (eossts)
    {
    case EOSSTS_SUCCESS:
    case EOSSTS_TIMEOUT:
    case EOSSTS_EXITED:
    case EOSSTS_CANCELLED:
        return eossts;
    default:
        if (a_blLogging)
            OSLOG(OS_LOG_ERROR, "Event Failed %d...", static_cast<int>(eossts));
        return EOSSTS_FAIL;
    }
}

// Reads what the ring buffer holds. EOSSTS_NOSPACE: nothing.
EOSSTS SocketShared::ReadRing(const COsSocket::ReadArgs& a_readargs, size_t* a_psizetRead)
{
    int32_t i32Read = 0;
    int32_t i32Remaining = 0;
    const EOSSTS eossts = SocketBusyRetry::Run([&] {
        return m_socketchannelIn.Ring().Read(a_readargs.pvBuffer, RingLength(a_readargs.sizetBuffer), &i32Read,
                                             &i32Remaining);
    });
    switch (eossts)
    {
    case EOSSTS_SUCCESS:
        if (i32Remaining == 0)
            m_socketchannelIn.Signal(OS_CHANNELEVENT_OKTOWRITE);
        *a_psizetRead = static_cast<size_t>(i32Read);
        return EOSSTS_SUCCESS;
    case EOSSTS_NOSPACE:
        return EOSSTS_NOSPACE;
    case EOSSTS_BUSY:
        OSLOG(OS_LOG_ERROR, "Retry %d for the busy RingBuffer.Read()", SocketBusyRetry::OS_BUSYRETRIES);
        return EOSSTS_FAIL;
    default:
        OSLOG(OS_LOG_ERROR, "RingBuffer.Read failed...");
        return EOSSTS_FAIL;
    }
}

EOSSTS SocketShared::Read(const COsSocket::ReadArgs& a_readargs, size_t* a_psizetRead)
{
    if (!m_socketchannelIn.IsAttached())
    {
        OSLOG(OS_LOG_ERROR, "sock>>> read: must open a socket first...");
        return EOSSTS_NOTOPEN;
    }
    const uint64_t u64Begin = PlatTicks();
    for (EOSSTS eosstsWait = EOSSTS_SUCCESS;;)
    {
        if (const EOSSTS eossts = ReadRing(a_readargs, a_psizetRead); eossts != EOSSTS_NOSPACE)
            return eossts;
        if (eosstsWait == EOSSTS_EXITED)   // what it wrote before its end has been read
            return EOSSTS_FAIL;
        eosstsWait = AwaitPeer(&m_socketchannelIn, TimeLeft(a_readargs.u32Timeout, u64Begin), true);
        if (eosstsWait != EOSSTS_SUCCESS && eosstsWait != EOSSTS_EXITED)
            return eosstsWait;
    }
}

// Writes and counts as much as fits. EOSSTS_NOSPACE: nothing.
EOSSTS SocketShared::WriteRing(const COsSocket::WriteArgs& a_writeargs, size_t* a_psizetWritten)
{
    int32_t i32Written = 0;
    const EOSSTS eossts = SocketBusyRetry::Run([&] {
        return m_socketchannelOut.Ring().Write(a_writeargs.pvBuffer, *a_psizetWritten,
                                               RingLength(a_writeargs.sizetBuffer - *a_psizetWritten), &i32Written);
    });
    switch (eossts)
    {
    case EOSSTS_SUCCESS:
        m_socketchannelOut.Signal(OS_CHANNELEVENT_OKTOREAD);
        *a_psizetWritten += static_cast<size_t>(i32Written);
        return EOSSTS_SUCCESS;
    case EOSSTS_NOSPACE:
        return EOSSTS_NOSPACE;
    case EOSSTS_BUSY:
        if (a_writeargs.blLogging)
            OSLOG(OS_LOG_ERROR, "Retry %d for the busy RingBuffer.Write()", SocketBusyRetry::OS_BUSYRETRIES);
        return EOSSTS_FAIL;
    default:
        if (a_writeargs.blLogging)
            OSLOG(OS_LOG_ERROR, "RingBuffer.Write failed...");
        return EOSSTS_FAIL;
    }
}

EOSSTS SocketShared::Write(const COsSocket::WriteArgs& a_writeargs, size_t* a_psizetWritten)
{
    if (!m_socketchannelOut.IsAttached())
    {
        if (a_writeargs.blLogging)
            OSLOG(OS_LOG_ERROR, "sock>>> write: must open a socket first...");
        return EOSSTS_NOTOPEN;
    }
    do
    {
        EOSSTS eossts = WriteRing(a_writeargs, a_psizetWritten);
        if (eossts == EOSSTS_NOSPACE)
            eossts = AwaitPeer(&m_socketchannelOut, OS_INFINITE, a_writeargs.blLogging);
        if (eossts != EOSSTS_SUCCESS)
            return eossts == EOSSTS_EXITED ? EOSSTS_FAIL : eossts;
    } while (*a_psizetWritten < a_writeargs.sizetBuffer);
    return EOSSTS_SUCCESS;
}
