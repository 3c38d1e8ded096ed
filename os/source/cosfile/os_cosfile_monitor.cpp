// os_cosfile_monitor.cpp: the directory monitor of a file object. From top to bottom: start, the record and its
// callbacks, the monitor thread, the events thread, stop. os_cosfile_monitor_watch.cpp detects changes.
#include "os_cosfile_monitor_impl.h"

#include "os_cfg.h"
#include "os_cosfile_system.h"
#include "os_coslocale.h"
#include "os_cosmem.h"
#include "os_cosspinlock.h"
#include "os_cosstring.h"
#include "os_new.h"
#include "os_scope.h"

#include "plat_system.h"
#include "plat_thread.h"
#include "plat_wait.h"

#include <cstring>

static constexpr char g_szSource[] = "os/source/os_cosfile";

namespace
{
constexpr uint32_t g_u32QueueEntries = 16;
constexpr uint32_t g_u32EventsPause = 100;   // ms, as below
constexpr uint32_t g_u32EndTimeout = 5000;
constexpr int32_t g_i32MonitorTimeout = 70000;
constexpr int32_t g_i32EventsTimeout = 5000;
constexpr uint32_t g_u32ResultStop = 8;   // result of the callback that ends the events thread
}   // namespace

// -------------------------------------------------------------------------------------------------------- start

COsFileMonitor::COsFileMonitor(COsFile* a_posfile, const char* a_szPath, const char* a_szName, uint32_t a_u32Mask,
                               OsFileMonitorProc a_osfilemonitorproc, void* a_pvContext)
    : m_posfile(a_posfile), m_osfilemonitorproc(a_osfilemonitorproc), m_u32Mask(a_u32Mask)
{
    SStrCpy(m_osfilemonitorstate.szPath, sizeof m_osfilemonitorstate.szPath, a_szPath);
    SStrCpy(m_osfilemonitorstate.szName, sizeof m_osfilemonitorstate.szName, a_szName ? a_szName : "");
    m_osfilemonitorstate.pvContext = a_pvContext;

    OsPathCopy(m_szSplit, sizeof m_szSplit, a_szPath);
    size_t sizetFolder = 0;
    OsPathSplit(m_szSplit, &sizetFolder, &m_szEntry);
    m_szFolder = m_szEntry == m_szSplit ? "." : sizetFolder == 0 ? "\\" : m_szSplit;
    if (m_szEntry != m_szSplit)
        m_szSplit[sizetFolder] = 0;
}

// The last reference may be released on one of the monitor's own threads, which then deletes its own thread object.
COsFileMonitor::~COsFileMonitor()
{
    OSMEMDELETE(m_posthreadMonitor);
    OSMEMDELETE(m_posthreadEvents);
    CloseFolder();
    if (m_plathandleStop != PLAT_INVALID)
        PlatClose(m_plathandleStop);
    OSMEMDELETE(m_poslnkQueue);
}

static std::shared_ptr<COsFileMonitor> CreateMonitor(COsFile* a_posfile, const char* a_szPath, const char* a_szName,
                                                     uint32_t a_u32Mask, OsFileMonitorProc a_osfilemonitorproc,
                                                     void* a_pvContext)
{
    try
    {
        return std::make_shared<COsFileMonitor>(a_posfile, a_szPath, a_szName, a_u32Mask, a_osfilemonitorproc,
                                                a_pvContext);
    }
    catch (const std::bad_alloc&)
    {
        OSLOG(OS_LOG_CHECK, "OsMemNew failed...<%s>", a_szPath);
        return nullptr;
    }
}

static EOSSTS InUse(const char* a_szWatched, const char* a_szPath)
{
    if (std::strcmp(a_szWatched, a_szPath) == 0)
    {
        OSLOG(OS_LOG_NOTE, "Object is already in use (but this is okay in this instance)...<%s>", a_szPath);
        return EOSSTS_SUCCESS;
    }
    OSLOG(OS_LOG_CHECK, "Object is already in use...<%s> <%s>", a_szWatched, a_szPath);
    return EOSSTS_FAIL;
}

EOSSTS COsFileImpl::MonitorStart(COsFile* a_posfile, const char* a_szPath, const char* a_szName, uint32_t a_u32Mask,
                                 OsFileMonitorProc a_osfilemonitorproc, void* a_pvContext)
{
    if (!a_szPath || !a_osfilemonitorproc)
        return EOSSTS_NOTOPEN;
    const MonitorReference posfilemonitorbase = Monitor();
    if (posfilemonitorbase && !posfilemonitorbase->IsStopped())
        return InUse(posfilemonitorbase->State().szPath, a_szPath);
    MonitorStop();   // a monitor stopped by its callback may still be ending

    OsFileInfo osfileinfo{};
    const bool blThere = OsFileGetInfo(a_szPath, &osfileinfo) == EOSSTS_SUCCESS;
    if (blThere ? osfileinfo.eosfiletype == OS_FILETYPE_FOLDER : !(a_u32Mask & OS_FILEMONITOR_MAYBEMISSING))
    {
        OSLOG(OS_LOG_ERROR, "File not found or not a file...<%s> <%d>", a_szPath,
              static_cast<int>(osfileinfo.eosfiletype));
        return EOSSTS_NOTFOUND;
    }
    const auto posfilemonitor =
        CreateMonitor(a_posfile, a_szPath, a_szName, a_u32Mask, a_osfilemonitorproc, a_pvContext);
    if (!posfilemonitor || !posfilemonitor->Prepare())
        return EOSSTS_FAIL;
    SetMonitor(posfilemonitor);

    // The callback may free this object in the initial call; when it has stopped the monitor, members must not be used.
    posfilemonitor->CallInitially();
    if (posfilemonitor->IsStopped())
        return EOSSTS_EXITED;
    const EOSSTS eossts = posfilemonitor->Launch();
    if (eossts != EOSSTS_SUCCESS)
        MonitorStop();
    return eossts;
}

// Creates what the threads need and records the file's state at the start.
bool COsFileMonitor::Prepare()
{
    m_plathandleStop = PlatEventCreate(PLAT_RESET_AUTO, nullptr);
    if (m_plathandleStop == PLAT_INVALID)
    {
        OSLOG(OS_LOG_ERROR, "monitor>>> CreateEventW failed...<%s>", m_osfilemonitorstate.szPath);
        return false;
    }
    m_posthreadMonitor = OSMEMNEW(COsThread);
    if (!m_posthreadMonitor)
    {
        OSLOG(OS_LOG_CHECK, "OsMemNew failed...<%s>", m_osfilemonitorstate.szPath);
        return false;
    }
    OpenFolder();   // first, so that no change is missed in between
    TakeBaseline();
    Rest();
    return true;
}

void COsFileMonitor::CallInitially()
{
    Call([this](OsFileMonitorRecord& a_osfilemonitorrecord) {
        a_osfilemonitorrecord.u32Event = OS_FILEMONITOR_START;
        m_osfilemonitorstate.blInitialCall = true;
    });
    m_osfilemonitorstate.blInitialCall = false;
}

EOSSTS COsFileMonitor::Launch()
{
    char szThreadName[256];
    SStrPrintf(szThreadName, sizeof szThreadName, "monitorfile-%.243s", m_szEntry);
    const EOSSTS eossts = m_posthreadMonitor->Start(szThreadName, &MonitorEntry, this);
    OSLOG(OS_LOG_NOTE, "file>>> <%s> %ull", m_osfilemonitorstate.szName, static_cast<unsigned>(PlatThreadId()));
    return eossts;
}

// --------------------------------------------------------------------------------------------------- the record

// False when the monitor is stopping: the callback may stop it while holding the lock, and then waits for the thread
// that is waiting here.
bool COsFileMonitor::LockRecord()
{
    while (!m_blStop)
    {
        if (SpinLockTry(&m_u64RecordLock))
            return true;
        PlatSleep(0);
    }
    return false;
}

template <class Fill>
uint32_t COsFileMonitor::Call(Fill a_fill)
{
    if (!LockRecord())
        return 0;
    const ScopeGuard unlock([this] { SpinLockRelease(&m_u64RecordLock); });
    a_fill(m_osfilemonitorstate.osfilemonitorrecord);
    return m_osfilemonitorproc(m_posfile);
}

// False when the callback asks for this call to be repeated.
bool COsFileMonitor::Report(uint32_t a_u32Event)
{
    const uint32_t u32Result = Call([&](OsFileMonitorRecord& a_osfilemonitorrecord) {
        SStrCpy(a_osfilemonitorrecord.szEntry, sizeof a_osfilemonitorrecord.szEntry, m_szEntry);
        OsPathCopy(a_osfilemonitorrecord.szPath, sizeof a_osfilemonitorrecord.szPath, m_szFolder);
        OsPathAppend(a_osfilemonitorrecord.szPath, sizeof a_osfilemonitorrecord.szPath, m_szEntry);
        a_osfilemonitorrecord.u32Event = a_u32Event;
        a_osfilemonitorrecord.plathandle = m_plathandleWatched;
        a_osfilemonitorrecord.blFirstChange = m_blFirstChange;
    });
    OsMemLogUsage(g_szSource, static_cast<uint32_t>(__LINE__));
    if (u32Result == OS_FILEMONITOR_CALLAGAIN)
        return false;
    m_blFirstChange = false;
    return true;
}

void COsFileMonitor::ReportUnreadable(const char* a_szFailed)
{
    if (m_osfilemonitorstate.eossts != EOSSTS_SUCCESS)
        return;
    OSLOG(OS_LOG_ERROR, "monitor>>> %s failed...<%s>", a_szFailed, m_osfilemonitorstate.szPath);
    Call([this](OsFileMonitorRecord& a_osfilemonitorrecord) {
        m_osfilemonitorstate.eossts = EOSSTS_NOTFOUND;
        a_osfilemonitorrecord.plathandle = PLAT_INVALID;
    });
}

// ------------------------------------------------------------------------------------------- the monitor thread

// The argument is valid here, because a stop by another thread waits for this one. The reference keeps the monitor
// alive when the callback stops it.
uint32_t COsFileMonitor::MonitorEntry(COsThread* a_posthread)
{
    t_posthread = a_posthread;
    const auto posfilemonitor = static_cast<COsFileMonitor*>(a_posthread->Argument())->shared_from_this();
    posfilemonitor->Monitor();
    return 0;
}

void COsFileMonitor::Monitor()
{
    OSLOG(OS_LOG_NOTE, "file>>> COsFileImpl::Monitor: %llu %s", static_cast<unsigned long long>(PlatThreadId()),
          m_osfilemonitorstate.szPath);
    if (!StartEvents())
        return;
    const ScopeGuard close([this] { CloseFolder(); });
    OSLOG(OS_LOG_NOTE, "monitor>>> begin...<%s>", m_osfilemonitorstate.szPath);
    Watch();
    OSLOG(OS_LOG_NOTE, "monitor>>> end...<%s>", m_osfilemonitorstate.szPath);
}

bool COsFileMonitor::StartEvents()
{
    m_poslnkQueue = OSMEMNEW(COsLnk, static_cast<uint32_t>(sizeof(OsFileMonitorRecord)), g_u32QueueEntries);
    m_posthreadEvents = OSMEMNEW(COsThread);
    if (m_poslnkQueue && m_posthreadEvents &&
        m_posthreadEvents->Start("COsFileImpl::Monitor(events)", &EventsEntry, this) == EOSSTS_SUCCESS)
        return true;
    OSLOG(OS_LOG_ERROR, "Start failed...");
    OSMEMDELETE(m_posthreadEvents);
    OSMEMDELETE(m_poslnkQueue);
    return false;
}

// -------------------------------------------------------------------------------------------- the events thread

// Delivers queued events. The queue is unused today: the monitor thread delivers changes itself.
uint32_t COsFileMonitor::EventsEntry(COsThread* a_posthread)
{
    t_posthread = a_posthread;
    const auto posfilemonitor = static_cast<COsFileMonitor*>(a_posthread->Argument())->shared_from_this();
    return posfilemonitor->Events(a_posthread);
}

uint32_t COsFileMonitor::Events(COsThread* a_posthread)
{
    if (!OsCfgExists())
        return EOSSTS_EXITED;
    while (a_posthread->StopState() == 1 && a_posthread->WaitForStop(OS_INFINITE) == EOSSTS_SUCCESS)
    {
        OsFileMonitorRecord osfilemonitorrecord;
        if (!TakeQueued(&osfilemonitorrecord))
            continue;
        a_posthread->WaitForStop(g_u32EventsPause);
        if (a_posthread->StopState() != 1)
            break;
        const uint32_t u32Result =
            Call([&](OsFileMonitorRecord& a_osfilemonitorrecord) { a_osfilemonitorrecord = osfilemonitorrecord; });
        if (u32Result == g_u32ResultStop)
        {
            m_posthreadMonitor->Stop(true, g_i32MonitorTimeout);
            break;
        }
    }
    return 0;
}

bool COsFileMonitor::TakeQueued(OsFileMonitorRecord* a_posfilemonitorrecord)
{
    const void* const pvItem = m_poslnkQueue->GetFirstAndLock("COsFileImpl::MonitorEvents", g_szSource, __LINE__);
    if (pvItem)
    {
        std::memcpy(a_posfilemonitorrecord, pvItem, sizeof *a_posfilemonitorrecord);
        m_poslnkQueue->Remove(pvItem, false, false);
    }
    m_poslnkQueue->Unlock();
    return pvItem != nullptr;
}

// --------------------------------------------------------------------------------------------------------- stop

COsFileImpl::MonitorReference COsFileImpl::Monitor() const
{
    const COsSpinGuard guard(&m_u64MonitorLock);
    return m_posfilemonitorbase;
}

void COsFileImpl::SetMonitor(MonitorReference a_posfilemonitorbase)
{
    const COsSpinGuard guard(&m_u64MonitorLock);
    m_posfilemonitorbase.swap(a_posfilemonitorbase);
}

const OsFileMonitorState& COsFileImpl::MonitorState() const
{
    const MonitorReference posfilemonitorbase = Monitor();
    return posfilemonitorbase ? posfilemonitorbase->State() : OS_FILEMONITORSTATE_NONE;
}

// If a monitor was stopped by its own callback, the object keeps it, and the owner's next stop waits for its end.
void COsFileImpl::MonitorStop()
{
    const MonitorReference posfilemonitorbase = Monitor();
    if (posfilemonitorbase && posfilemonitorbase->Stop())
        SetMonitor(nullptr);
}

// False when called on that thread itself, which then ends by itself.
bool COsFileMonitor::StopThread(COsThread* a_posthread, const char* a_szWhich, int32_t a_i32Timeout)
{
    if (t_posthread == a_posthread)
    {
        OSLOG(OS_LOG_ERROR, "MonitorStop, same thread, %s...", a_szWhich);
        return false;
    }
    a_posthread->Stop(true, a_i32Timeout);
    return true;
}

bool COsFileMonitor::Stop()
{
    OSLOG(OS_LOG_NOTE, "file>>> COsFileImpl::MonitorStop: <%s>", m_osfilemonitorstate.szPath);
    m_blStop = true;
    PlatEventSet(m_plathandleStop);
    if (t_posthread != m_posthreadMonitor && !m_posthreadMonitor->WaitForEnd(g_u32EndTimeout))
        OSLOG(OS_LOG_ERROR, "file>>> timeout waiting for monitor thread to exit...");
    const bool blMonitorGone = StopThread(m_posthreadMonitor, "monitor", g_i32MonitorTimeout);
    const bool blEventsGone = !m_posthreadEvents || StopThread(m_posthreadEvents, "events", g_i32EventsTimeout);
    return blMonitorGone && blEventsGone;
}
