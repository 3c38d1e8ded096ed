// os_coslogcollector_client.cpp: the client side: log lines over the connection to a collector.
#include "os_coslogcollector_impl.h"

#include "os_new.h"

static constexpr char g_szSource[] = "os/source/os_coslogcollector";

// A collector that takes nothing for so long is given up: its clients must not stand still for ever.
static constexpr uint32_t g_u32ClientTimeout = 5000;

void COsLogCollectorImpl::TakeClientSocket(COsSocket* a_possocket)
{
    OSMEMDELETE(m_possocketClient);
    m_possocketClient = a_possocket;
}

EOSSTS COsLogCollectorImpl::ClientWrite(const void* a_pvBuffer, size_t a_sizetBytes)
{
    if (!m_possocketClient)
    {
        OSLOG(OS_LOG_ERROR, "m_possocketimpl is null...");
        return EOSSTS_DISCONNECTED;
    }
    COsSocket::WriteArgs writeargs;
    writeargs.pvBuffer = a_sizetBytes ? a_pvBuffer : " ";
    writeargs.sizetBuffer = a_sizetBytes ? a_sizetBytes : 1;
    writeargs.u32Timeout = g_u32ClientTimeout;
    writeargs.blLogging = false;
    writeargs.blRaw = true;
    while (writeargs.sizetBuffer)
    {
        size_t sizetWritten = 0;
        const EOSSTS eossts = m_possocketClient->SocketWrite(writeargs, &sizetWritten);
        if (eossts != EOSSTS_SUCCESS)
            return eossts;
        if (sizetWritten == 0)
            return EOSSTS_DISCONNECTED;
        writeargs.pvBuffer = static_cast<const char*>(writeargs.pvBuffer) + sizetWritten;
        writeargs.sizetBuffer -= sizetWritten;
    }
    return EOSSTS_SUCCESS;
}
