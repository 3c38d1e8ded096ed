// os_coslogcollector.cpp: the public object, construction and Start.
#include "os_coslogcollector.h"

#include "os_cfg.h"
#include "os_cosarguments.h"
#include "os_cosenv.h"
#include "os_cosfile_paths.h"
#include "os_cosfile_system.h"
#include "os_coslogcollector_impl.h"
#include "os_cosstring.h"
#include "os_new.h"
#include "os_scope.h"

#include "plat_process.h"

#include <stdexcept>

static constexpr char g_szSource[] = "os/source/os_coslogcollector";

static constexpr uint32_t g_u32NodesPerChunk = 32;
static constexpr uint32_t g_u32SessionServices = 0;

static_assert(sizeof(LogCollectorRecord) == 40);

std::atomic<uint8_t> g_bLogCollectorStop{0};
std::atomic<uint8_t> g_bLogCollectorStopping{0};

// ------------------------------------------------------------------------------------------- the public object

static COsLogCollectorImpl* CreateImpl(CollectorMode a_collectormode, const char* a_szName)
{
    return OSMEMNEW(COsLogCollectorImpl, a_collectormode, a_szName);
}

// A logger makes its client under its own log path; what that logs would come back to it.
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

EOSSTS COsLogCollector::ClientWrite(const void* a_pvBuffer, size_t a_sizetBytes)
{
    return Usable(m_poslogcollectorimpl) ? m_poslogcollectorimpl->ClientWrite(a_pvBuffer, a_sizetBytes) : EOSSTS_FAIL;
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

// ------------------------------------------------------------------------------------------------ construction

COsLogCollectorImpl::COsLogCollectorImpl(CollectorMode a_collectormode, const char* a_szName)
    : m_collectormode(a_collectormode),
      m_szHost{},
      m_szPort{},
      m_i32BoundPort(0),
      m_u64ProcessIdApplication(0),
      m_szLogFile{},
      m_szLeftoverFolder{},
      m_posthreadAccept(nullptr),
      m_possyncStop(nullptr),
      m_possocketListen(nullptr),
      m_poslnk(nullptr),
      m_possocketClient(nullptr),
      m_blLost(false),
      m_u64Written(0),
      m_posfileFlush(nullptr),
      m_blListening(false),
      m_blStraggler(false)
{
    SStrCpy(m_szHost, sizeof m_szHost, OS_LC_HOST);
    ChoosePort();
    if (IsClient())
        SStrCpy(m_szLogFile, sizeof m_szLogFile, a_szName ? a_szName : "");
    m_possocketListen = OSMEMNEW(COsSocket);
}

COsLogCollectorImpl::~COsLogCollectorImpl()
{
    OSMEMDELETE(m_possocketListen);
}

void COsLogCollectorImpl::ChoosePort()
{
    SStrCpy(m_szPort, sizeof m_szPort, "0");
    switch (m_collectormode)
    {
    case OS_COLLECTORMODE_SHAREDCLIENT:
    case OS_COLLECTORMODE_PRIVATE:
        return;
    case OS_COLLECTORMODE_SHARED:
        OsEnvGet("MVR_LOGCOLLECTOR", "0", sizeof m_szPort, m_szPort);
        if (StrToInt32(m_szPort) < OS_LC_LEASTSHAREDPORT)
            SStrCpy(m_szPort, sizeof m_szPort, OS_LC_SHAREDPORT);
        return;
    case OS_COLLECTORMODE_PRIVATECLIENT:
        TakeIdentity();
        return;
    }
    throw std::invalid_argument("COsLogCollector: unknown role");
}

// Where the collector of this application is, as far as this process knows.
void COsLogCollectorImpl::TakeIdentity()
{
    const OsCollectorIdentity oscollectoridentity = OsArgumentsCollector();
    SStrPrintf(m_szPort, sizeof m_szPort, "%d", oscollectoridentity.i32Port);
    m_u64ProcessIdApplication = oscollectoridentity.u64ProcessIdApplication;
}

bool COsLogCollectorImpl::IsClient() const
{
    return m_collectormode == OS_COLLECTORMODE_SHAREDCLIENT || m_collectormode == OS_COLLECTORMODE_PRIVATECLIENT;
}

// ------------------------------------------------------------------------------------------------------- Start

bool OsLcIsServicesSession()
{
    uint32_t u32Session = 0;
    return PlatProcessSession(PlatProcessId(), &u32Session) && u32Session == g_u32SessionServices;
}

EOSSTS COsLogCollectorImpl::Start(const char* a_szLogFile, bool a_blCheckOther)
{
    if (!IsClient())
        g_bLogCollectorStopping.store(0);
    if (OsLcIsServicesSession())
        return EOSSTS_FAIL;
    if (IsClient())
        return StartClient(a_szLogFile);
    if (m_poslnk)
        return EOSSTS_SUCCESS;
    if (m_collectormode == OS_COLLECTORMODE_SHARED && a_blCheckOther && OtherSharedRuns())
        return EOSSTS_BUSY;

    ScopeGuard freeOnFailure([this] { FreeServiceObjects(); });
    if (!CreateServiceObjects())
        return EOSSTS_FAIL;
    if (m_possyncStop->EventCreate(nullptr, nullptr) != EOSSTS_SUCCESS)
    {
        OSLOG(OS_LOG_ERROR, "EventCreate failed...");
        return EOSSTS_FAIL;
    }
    // Before the accept thread begins: the application waits for the port.
    m_blListening = m_collectormode == OS_COLLECTORMODE_PRIVATE && ListenAndReport();
    if (m_posthreadAccept->Start("LogAccept", &LogAcceptEntry, this) != EOSSTS_SUCCESS)
    {
        OSLOG(OS_LOG_ERROR, "Start failed...");
        return EOSSTS_FAIL;
    }
    freeOnFailure.Dismiss();
    StartMonitor();
    return EOSSTS_SUCCESS;
}

// A shared collector keeps its announcement file locked for its whole life.
bool COsLogCollectorImpl::OtherSharedRuns()
{
    char szPath[OS_PATHSIZE];
    AnnouncementPath(szPath);
    COsFile osfile;
    if (osfile.Open(szPath, OS_FILEOPEN_EXISTING, OS_FILEACCESS_READWRITE, OS_FILESHARE_READWRITE) != EOSSTS_SUCCESS)
        return false;
    return osfile.LockByte(0, 1, szPath, true) != EOSSTS_SUCCESS;
}

void COsLogCollectorImpl::AnnouncementPath(char* a_szPath)
{
    OsPathCopy(a_szPath, OS_PATHSIZE, OsCfgGetString(OS_CFGTAG_ROOTCOMMONDIRECTORYLEGACY));
    OsPathAppend(a_szPath, OS_PATHSIZE, OS_LC_ANNOUNCEMENTFILE);
}

bool COsLogCollectorImpl::CreateServiceObjects()
{
    m_possyncStop = OSMEMNEW(COsSync);
    m_posthreadAccept = OSMEMNEW(COsThread);
    m_poslnk = OSMEMNEW(COsLnk, static_cast<uint32_t>(sizeof(LogCollectorRecord)), g_u32NodesPerChunk);
    m_posfileFlush = OSMEMNEW(COsFile);
    if (!m_possocketListen)
        m_possocketListen = OSMEMNEW(COsSocket);
    if (m_possocketListen && m_possyncStop && m_posthreadAccept && m_poslnk && m_posfileFlush)
        return true;
    OSLOG(OS_LOG_ERROR, "OsMemNew failed...");
    return false;
}

void COsLogCollectorImpl::FreeServiceObjects()
{
    OSMEMDELETE(m_posfileFlush);
    OSMEMDELETE(m_poslnk);
    OSMEMDELETE(m_posthreadAccept);
    OSMEMDELETE(m_possyncStop);
    OSMEMDELETE(m_possocketListen);   // who knows the port already is refused
}
