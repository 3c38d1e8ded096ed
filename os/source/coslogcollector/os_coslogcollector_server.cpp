// os_coslogcollector_server.cpp: construction and Start of the roles that take streams.
#include "os_coslogcollector_server.h"

#include "os_cosenv.h"
#include "os_coslogcollector_announcement.h"
#include "os_coslogstatus_own.h"
#include "os_cosstring.h"
#include "os_new.h"
#include "os_scope.h"

static constexpr char g_szSource[] = "os/source/os_coslogcollector";

static constexpr uint32_t g_u32NodesPerChunk = 32;

static_assert(sizeof(LogCollectorRecord) == 40);

COsLogCollectorServer::COsLogCollectorServer(bool a_blPrivate) : m_blPrivate(a_blPrivate), m_szHost{}, m_szPort{}
{
    SStrCpy(m_szHost, sizeof m_szHost, OS_LC_HOST);
    SStrCpy(m_szPort, sizeof m_szPort, "0");
    if (!m_blPrivate)
        ChooseSharedPort();
    m_possocketListen = OSMEMNEW(COsSocket);
}

COsLogCollectorServer::~COsLogCollectorServer()
{
    OSMEMDELETE(m_possocketListen);
}

void COsLogCollectorServer::ChooseSharedPort()
{
    OsEnvGet("MVR_LOGCOLLECTOR", "0", sizeof m_szPort, m_szPort);
    if (StrToInt32(m_szPort) < OS_LC_LEASTSHAREDPORT)
        SStrCpy(m_szPort, sizeof m_szPort, OS_LC_SHAREDPORT);
}

EOSSTS COsLogCollectorServer::Start(const char*, bool a_blCheckOther)
{
    g_bLogCollectorStopping.store(0);
    if (OsLcIsServicesSession())
        return EOSSTS_FAIL;
    if (m_poslnk)
        return EOSSTS_SUCCESS;
    if (!m_blPrivate && a_blCheckOther && OsLcOtherSharedRuns())
        return EOSSTS_BUSY;

    ScopeGuard freeOnFailure([this] { FreeServiceObjects(); });
    if (!CreateServiceObjects())
        return EOSSTS_FAIL;
    if (m_possyncStop->EventCreate(nullptr, nullptr) != EOSSTS_SUCCESS)
    {
        OSLOG(OS_LOG_ERROR, "EventCreate failed...");
        return EOSSTS_FAIL;
    }
    // Before the accept thread starts: the application waits for the port.
    m_blListening = m_blPrivate && ListenAndReport();
    if (m_posthreadAccept->Start("LogAccept", &LogAcceptEntry, this) != EOSSTS_SUCCESS)
    {
        OSLOG(OS_LOG_ERROR, "Start failed...");
        return EOSSTS_FAIL;
    }
    freeOnFailure.Dismiss();
    StartMonitors();
    OpenStatus();
    return EOSSTS_SUCCESS;
}

// After the port was reported, so that no application waits for this.
void COsLogCollectorServer::OpenStatus()
{
    if (m_blPrivate && !m_blListening)
        return;
    COsLogStatusOwn& oslogstatusown = COsLogStatusOwn::Get();
    oslogstatusown.Open(OS_LOGSTATUS_COLLECTS, nullptr);
    oslogstatusown.PutCollector(StrToInt32(m_szPort), m_u64ProcessIdApplication);
    m_blStatus = true;
}

bool COsLogCollectorServer::CreateServiceObjects()
{
    m_possyncStop = OSMEMNEW(COsSync);
    m_posthreadAccept = OSMEMNEW(COsThread);
    m_poslnk = OSMEMNEW(COsLnk, static_cast<uint32_t>(sizeof(LogCollectorRecord)), g_u32NodesPerChunk);
    m_posfileFlush = OSMEMNEW(COsFile);
    m_posfileFlushOwn = OSMEMNEW(COsFile);
    if (!m_possocketListen)
        m_possocketListen = OSMEMNEW(COsSocket);
    if (m_possocketListen && m_possyncStop && m_posthreadAccept && m_poslnk && m_posfileFlush && m_posfileFlushOwn)
        return true;
    OSLOG(OS_LOG_ERROR, "OsMemNew failed...");
    return false;
}

void COsLogCollectorServer::FreeServiceObjects()
{
    OSMEMDELETE(m_posfileFlush);
    OSMEMDELETE(m_posfileFlushOwn);
    OSMEMDELETE(m_poslnk);
    OSMEMDELETE(m_posthreadAccept);
    OSMEMDELETE(m_possyncStop);
    OSMEMDELETE(m_possocketListen);   // later connects are refused
}
