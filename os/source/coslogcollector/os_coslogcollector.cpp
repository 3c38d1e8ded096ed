// os_coslogcollector.cpp: the public object, and the choice of its role.
#include "os_coslogcollector.h"

#include "os_coslogcollector_client.h"
#include "os_coslogcollector_server.h"
#include "os_new.h"

#include "plat_process.h"

#include <stdexcept>

static constexpr char g_szSource[] = "os/source/os_coslogcollector";

static constexpr uint32_t g_u32SessionServices = 0;

std::atomic<uint8_t> g_bLogCollectorStop{0};
std::atomic<uint8_t> g_bLogCollectorStopping{0};

// ------------------------------------------------------------------------------------------- the public object

static COsLogCollectorImpl* CreateImpl(CollectorMode a_collectormode, const char* a_szName)
{
    switch (a_collectormode)
    {
    case OS_COLLECTORMODE_SHAREDCLIENT:
        return OSMEMNEW(COsLogCollectorClient, false, a_szName);
    case OS_COLLECTORMODE_SHARED:
        return OSMEMNEW(COsLogCollectorServer, false);
    case OS_COLLECTORMODE_PRIVATECLIENT:
        return OSMEMNEW(COsLogCollectorClient, true, a_szName);
    case OS_COLLECTORMODE_PRIVATE:
        return OSMEMNEW(COsLogCollectorServer, true);
    }
    throw std::invalid_argument("COsLogCollector: unknown role");
}

// A logger creates its client while it sets its own log path; lines logged by the client would come back to it.
static COsLogCollectorImpl* CreateImplQuietly(CollectorMode a_collectormode, const char* a_szName)
{
    const COsLogSuppress suppress;
    return CreateImpl(a_collectormode, a_szName);
}

COsLogCollector::COsLogCollector(CollectorMode a_collectormode, const char* a_szName)
    : m_poslogcollectorimpl(a_szName && *a_szName ? CreateImplQuietly(a_collectormode, a_szName)
                                                  : CreateImpl(a_collectormode, a_szName))
{
}

COsLogCollector::~COsLogCollector()
{
    if (!m_poslogcollectorimpl)
        return;
    m_poslogcollectorimpl->Stop(nullptr, 0);
    if (!m_poslogcollectorimpl->HasStraggler())
        OSMEMDELETE(m_poslogcollectorimpl);
}

static bool Usable(const COsLogCollectorImpl* a_poslogcollectorimpl)
{
    if (!a_poslogcollectorimpl)
        OSLOG(OS_LOG_ERROR, "m_poslogcollectorimpl is null...");
    return a_poslogcollectorimpl != nullptr;
}

EOSSTS COsLogCollector::Start(const char* a_szLogFile, bool a_blCheckOther)
{
    return Usable(m_poslogcollectorimpl) ? m_poslogcollectorimpl->Start(a_szLogFile, a_blCheckOther) : EOSSTS_FAIL;
}

void COsLogCollector::SetApplication(uint64_t a_u64ProcessId)
{
    if (Usable(m_poslogcollectorimpl))
        m_poslogcollectorimpl->SetApplication(a_u64ProcessId);
}

void COsLogCollector::Stop(char* a_szFolder, size_t a_sizetFolder)
{
    if (Usable(m_poslogcollectorimpl))
        m_poslogcollectorimpl->Stop(a_szFolder, a_sizetFolder);
}

EOSSTS COsLogCollector::ClientWrite(const void* a_pvBuffer, size_t a_sizetBytes, bool a_blWait)
{
    return Usable(m_poslogcollectorimpl) ? m_poslogcollectorimpl->ClientWrite(a_pvBuffer, a_sizetBytes, a_blWait)
                                         : EOSSTS_FAIL;
}

std::string COsLogCollector::TakeUnsent()
{
    return m_poslogcollectorimpl ? m_poslogcollectorimpl->TakeUnsent() : std::string();
}

void COsLogCollector::TakeClientSocket(COsSocket* a_possocket)
{
    if (!Usable(m_poslogcollectorimpl))
    {
        delete a_possocket;
        return;
    }
    m_poslogcollectorimpl->TakeClientSocket(a_possocket);
}

void COsLogCollector::LeaveToParent()
{
    if (m_poslogcollectorimpl)
        m_poslogcollectorimpl->LeaveToParent();
}

// -------------------------------------------------------------------------------------------- shared by the roles

EOSSTS COsLogCollectorImpl::ClientWrite(const void*, size_t, bool)
{
    OSLOG(OS_LOG_ERROR, "m_possocketimpl is null...");
    return EOSSTS_DISCONNECTED;
}

void COsLogCollectorImpl::TakeClientSocket(COsSocket* a_possocket)
{
    delete a_possocket;
}

bool OsLcIsServicesSession()
{
    uint32_t u32Session = 0;
    return PlatProcessSession(PlatProcessId(), &u32Session) && u32Session == g_u32SessionServices;
}
