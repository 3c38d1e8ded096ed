// os_coslog.cpp: the public object, creation, start and path, destruction.
#include "os_coslog.h"

#include "os_cfg.h"
#include "os_cosarguments.h"
#include "os_cosenv.h"
#include "os_coslog_header.h"
#include "os_coslog_impl.h"
#include "os_coslogcollector.h"
#include "os_cosmem.h"
#include "os_cosstring.h"

#include "plat_thread.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <new>

static constexpr char g_szSource[] = "os/source/os_coslog";
static constexpr char g_szSourceCollector[] = "os/source/os_coslogcollector";

static constexpr uint32_t g_u32FlagsTakenOut = 0x100 | 0x2000 | 0x4000 | OS_LOGFLAG_LEVEL32;
static constexpr uint32_t g_u32FlagsTakenOutAtStart = g_u32FlagsTakenOut | 0x2;
static constexpr int64_t g_i64CheckModeDefault = 3;
static constexpr int32_t g_i32BufferLeast = 8192;
static constexpr int32_t g_i32BufferMost = 65536;

// ------------------------------------------------------------------------------------------- the public object

static std::atomic<COsLog*> g_poslog{nullptr};

COsLog* OsLogGet()
{
    return g_poslog.load(std::memory_order_acquire);
}

// In a forked child, before it logs.
void COsLog::LeaveToParent()
{
    const COsLog* const poslog = OsLogGet();
    if (poslog && poslog->m_poslogimpl)
        poslog->m_poslogimpl->LeaveToParent();
}

COsLog::COsLog(const CreateArgs& a_createargs) : m_poslogimpl(new (std::nothrow) COsLogImpl(a_createargs))
{
    [[maybe_unused]] static const bool g_blHooked = (PlatThreadOnFork(LeaveToParent), true);
    g_poslog.store(this, std::memory_order_release);
    g_poslogsink.store(this, std::memory_order_release);
}

COsLog::~COsLog()
{
    const PlatThreadDeferral platthreaddeferral;
    if (m_poslogimpl)
        m_poslogimpl->LogLastLines();
    g_poslogsink.store(nullptr, std::memory_order_release);
    g_poslog.store(nullptr, std::memory_order_release);
    delete m_poslogimpl;
}

void COsLog::Start(const char* a_szLogFile, uint32_t a_u32Flags, const char* a_szFilter)
{
    const PlatThreadDeferral platthreaddeferral;
    if (m_poslogimpl)
        m_poslogimpl->Start(a_szLogFile, a_u32Flags, a_szFilter);
}

void COsLog::Flush()
{
    const PlatThreadDeferral platthreaddeferral;
    if (m_poslogimpl)
        m_poslogimpl->Flush();
}

void COsLog::VPrintf(const char* a_szFile, uint32_t a_u32Line, uint32_t a_u32Level, const char* a_szFormat,
                     va_list a_valist)
{
    if (m_poslogimpl)
        m_poslogimpl->Log({a_szFile, a_u32Line, a_u32Level, a_szFormat}, a_valist);
}

uint32_t COsLog::WorkingWord() const
{
    if (!m_poslogimpl)
        return 0;
    m_poslogimpl->TakeWish();
    return m_poslogimpl->WorkingWord();
}

void COsLog::SetWorkingWord(uint32_t a_u32Flags)
{
    if (m_poslogimpl)
        m_poslogimpl->SetWorkingWord(a_u32Flags);
}

const char* COsLog::LogFile() const
{
    return m_poslogimpl ? m_poslogimpl->LogFile() : "";
}

bool COsLog::UsesCollector() const
{
    return m_poslogimpl && m_poslogimpl->UsesCollector();
}

OsLogHealth COsLog::Health() const
{
    return m_poslogimpl ? m_poslogimpl->Health() : OsLogHealth{};
}

void COsLog::TakeCollector(COsLogCollector* a_poslogcollector)
{
    const PlatThreadDeferral platthreaddeferral;
    std::unique_ptr<COsLogCollector> uniqueCollector(a_poslogcollector);
    if (m_poslogimpl)
        m_poslogimpl->TakeCollector(uniqueCollector.release());
}

// ------------------------------------------------------------------------------------------------------ creation

// Expands "@NAME@FILE" to the environment variable's value followed by FILE; empty when that is too long. False for a
// path of another form.
static bool ExpandPath(const char* a_szLogFile, char* a_szExpanded, const char** a_pszFile)
{
    const char* const szLast = std::strrchr(a_szLogFile, '@');
    if (a_szLogFile[0] != '@' || szLast == a_szLogFile)
        return false;
    char szName[OS_PATHSIZE] = {};
    const size_t sizetName = static_cast<size_t>(szLast - a_szLogFile) - 1;
    *a_szExpanded = '\0';
    *a_pszFile = a_szExpanded;
    if (sizetName >= sizeof szName)
        return true;
    std::memcpy(szName, a_szLogFile + 1, sizetName);

    a_szExpanded[0] = '.';
    a_szExpanded[1] = '\0';
    if (sizetName)
        OsEnvGet(szName, ".", OS_PATHSIZE, a_szExpanded);
    const size_t sizetValue = std::strlen(a_szExpanded);
    SStrCat(a_szExpanded, OS_PATHSIZE, szLast + 1);
    *a_pszFile = a_szExpanded + (*a_szExpanded ? sizetValue : 0);
    return true;
}

// Several programs may be given the same path, so the file name gets the name of the module that contains this library.
static void AddModuleName(char* a_szLogFile, const char* a_szFile)
{
    if (char* const szDot = std::strrchr(a_szLogFile + (a_szFile - a_szLogFile), '.'))
        *szDot = '\0';
    char szModule[OS_PATHSIZE];
    OsArgumentsModulePath(szModule);
    SStrCatf(a_szLogFile, OS_PATHSIZE, "_%s.log", StrFileName(szModule));
    std::replace(a_szLogFile, a_szLogFile + std::strlen(a_szLogFile), '/', '\\');
}

COsLogImpl::COsLogImpl(const COsLog::CreateArgs& a_createargs)
    : m_sizetInitialBuffer(static_cast<size_t>(
          std::clamp(StrToInt32(OsCfgGetCommon("LogMaxFinal", "8192")), g_i32BufferLeast, g_i32BufferMost)))
{
    SStrCpy(m_szUniqueName, sizeof m_szUniqueName, a_createargs.szUniqueName ? a_createargs.szUniqueName : "");
    SetStateFromEnvironment();
    m_u32CheckMode = static_cast<uint32_t>(OsEnvGetNumber("MVR_ASSERT", g_i64CheckModeDefault));
    SetFlags(a_createargs.u32Flags, g_u32FlagsTakenOut);

    const char* const szLogFile = a_createargs.szLogFile ? a_createargs.szLogFile : "";
    char szExpanded[OS_PATHSIZE];
    const char* szFile = nullptr;
    const bool blExpanded = ExpandPath(szLogFile, szExpanded, &szFile);
    if (blExpanded)
        AddModuleName(szExpanded, szFile);
    m_oslogdestination.SetPath(blExpanded ? szExpanded : szLogFile, true, 0);
    m_oslogfilter.Set(a_createargs.szFilter ? a_createargs.szFilter : "", " ", false);
}

// The initial state of a process is 88, or 99 when MVR_NOLOGGING is set.
void COsLogImpl::SetStateFromEnvironment()
{
    OsLogSetState(static_cast<int>(OsEnvGetNumber("MVR_NOLOGGING", 0)));
    const bool blAllowed = OsLogGetState() == OS_LOGSTATE_ON;
    OsLogSetState(blAllowed ? OS_LOGSTATE_NOTSTARTED : OS_LOGSTATE_OFF);
}

COsLogImpl::~COsLogImpl()
{
    COsLogStatusOwn::Get().Close(OS_LOGSTATUS_LOGS);
}

void COsLogImpl::LogLastLines()
{
    TellLost();
    if (WorkingWord() != 0)
        OSLOG(OS_LOG_NOTE, "mem>>> stack:%llu", static_cast<unsigned long long>(OsLogStackSize()));
    OsMemLogUsage(g_szSource, static_cast<uint32_t>(__LINE__));
    if (WorkingWord() != 0)
        OSLOG(OS_LOG_MILESTONE, "### OsServicesStop...");
}

// --------------------------------------------------------------------------------------------------------- start

void COsLogImpl::Start(const char* a_szLogFile, uint32_t a_u32Flags, const char* a_szFilter)
{
    const char* const szLogFile = a_szLogFile && *a_szLogFile ? a_szLogFile : nullptr;
    m_blRedirectPending = true;
    if (!szLogFile && !*LogFile())
    {
        OsLogSetState(OS_LOGSTATE_OFF);
        return;
    }
    StartPath(szLogFile);
    if (a_szFilter)
        m_oslogfilter.Set(a_szFilter, " \t", true);
    SetFlags(a_u32Flags, g_u32FlagsTakenOutAtStart);
    if (OsLogGetState() != OS_LOGSTATE_OFF)
        m_osloghold.Move(LogFile());
    const Collector collector = StartCollector();
    OpenStatus();
    OsLogSetState(OS_LOGSTATE_ALLOW);
    const bool blMilestones = WorkingWord() != 0;
    if (blMilestones && collector == Collector::Private)
    {
        OSLOG_AT(g_szSourceCollector, static_cast<uint32_t>(__LINE__), OS_LOG_MILESTONE,
                 "LogCollector initialization complete...");
    }
    if (blMilestones)
        OSLOG(OS_LOG_MILESTONE, "### OsServicesStart...");
    if (collector == Collector::Stranger)
    {
        OSLOG_AT(g_szSourceCollector, static_cast<uint32_t>(__LINE__), OS_LOG_ERROR,
                 "the collector's port belongs to another user, it gets no line...");
    }
}

void COsLogImpl::StartPath(const char* a_szLogFile)
{
    OsLogPath* const poslogpath = m_oslogdestination.Path();
    if (!a_szLogFile)
    {
        poslogpath->blHeaderPending = false;
        return;
    }
    char szExpanded[OS_PATHSIZE];
    const char* szFile = nullptr;
    const bool blExpanded = ExpandPath(a_szLogFile, szExpanded, &szFile);
    const bool blNew = std::strcmp(a_szLogFile, poslogpath->szLogFile) != 0;
    if (blNew)
        m_oslogdestination.SetPath(blExpanded ? szExpanded : a_szLogFile, true, 0);
}

// OS_LOGFLAG_LEVEL32, once set, stays in force for later starts; a request in the status file resets it.
void COsLogImpl::SetFlags(uint32_t a_u32Flags, uint32_t a_u32TakenOut)
{
    m_u32StartWord = a_u32Flags;
    if (a_u32Flags & OS_LOGFLAG_LEVEL32)
        m_blLevel32 = true;
    m_blMilestones = (a_u32Flags & OS_LOGFLAG_MILESTONES) != 0;
    SetWorkingWord(a_u32Flags & ~a_u32TakenOut);
}

void COsLogImpl::SetWorkingWord(uint32_t a_u32Flags)
{
    m_u32WorkingWord.store(a_u32Flags, std::memory_order_relaxed);
    const uint32_t u32Level32 = m_blLevel32.load(std::memory_order_relaxed) ? OS_LOGFLAG_LEVEL32 : 0;
    COsLogStatusOwn::Get().Record().u32Flags.store(a_u32Flags | u32Level32, std::memory_order_relaxed);
}

// -------------------------------------------------------------------------------------------------------- status

// The status file is opened when logging begins, and not at all in a process whose logging is disabled.
void COsLogImpl::OpenStatus()
{
    if (OsLogGetState() == OS_LOGSTATE_OFF)
        return;
    COsLogStatusOwn& oslogstatusown = COsLogStatusOwn::Get();
    oslogstatusown.Open(OS_LOGSTATUS_LOGS, m_szUniqueName);
    oslogstatusown.Record().u64Wish = 0;
    m_u64Wish = 0;
    oslogstatusown.PutLogFile(LogFile());
    if (const OsCollectorIdentity oscollectoridentity = OsArgumentsCollector(); UsesCollector())
        oslogstatusown.PutCollector(oscollectoridentity.i32Port, oscollectoridentity.u64ProcessIdApplication);
    m_osloghealth.SetWhere(UsesCollector() ? OS_LOGWHERE_COLLECTOR : OS_LOGWHERE_OWNFILE);
    m_osloghealth.Publish();
    SetWorkingWord(WorkingWord());
}

// One thread applies the change. A request that disappeared with its file leaves the flags unchanged.
void COsLogImpl::TakeWish(uint64_t a_u64Wish)
{
    uint64_t u64Before = m_u64Wish.load();
    if (u64Before == a_u64Wish || !m_u64Wish.compare_exchange_strong(u64Before, a_u64Wish) || a_u64Wish == 0)
        return;
    m_blLevel32 = false;
    m_blFlushEvery = false;
    SetFlags(static_cast<uint32_t>(a_u64Wish), g_u32FlagsTakenOut);
}

// Connects to the application's own collector. The result says whether it did.
COsLogImpl::Collector COsLogImpl::StartCollector()
{
    const char* const szLogFile = LogFile();
    if (m_oslogdestination.HasCollector() || !*szLogFile)
        return Collector::Nothing;
    const bool blPrivate = StrICmp(OsCfgGetCommon("LogCollector", "enabled"), "enabled") == 0;
    // Other threads wait until this is finished instead of losing their lines.
    const OsLogGuard oslogguard(m_osloglockFirst, OS_LOGFIRSTTIMEOUT);
    const COsLogSuppress oslogsuppress;
    std::unique_ptr<COsLogCollector> uniqueCollector(new (std::nothrow) COsLogCollector(
        blPrivate ? OS_COLLECTORMODE_PRIVATECLIENT : OS_COLLECTORMODE_SHAREDCLIENT, szLogFile));
    const EOSSTS eossts = uniqueCollector ? uniqueCollector->Start(szLogFile, true) : EOSSTS_NOMEMORY;
    if (eossts == EOSSTS_ACCESSDENIED)
        return Collector::Stranger;
    if (eossts != EOSSTS_SUCCESS)
        return Collector::Nothing;
    TakeCollector(uniqueCollector.release());
    return blPrivate ? Collector::Private : Collector::Nothing;
}

// The threads that held a lock or had suppressed logging do not exist in the forked child.
void COsLogImpl::LeaveToParent()
{
    m_osloglockFirst.Release();
    m_oslogfilter.LeaveToParent();
    m_osloghold.LeaveToParent();
    m_oslogslots.LeaveToParent();
    m_oslogdestination.LeaveToParent();
    if (OsLogGetState() == OS_LOGSTATE_SUPPRESSED)
        OsLogSetState(OS_LOGSTATE_ON);
}

void COsLogImpl::Flush()
{
    const OsLogKeepError oslogkeeperror;
    m_oslogdestination.Flush();
}
