// os_cosfile_monitor.cpp: the directory monitor of a file object. From top to bottom: start, the verdict on a change,
// the monitor thread, the events thread, stop.
//
// The system reports too much (several notes for one write, notes for other files) and too little (a time is as coarse
// as the clock that it is taken from). So a note only says that it is time to look. What counts is what the name
// stands for, by identity, size and time together, and it counts when it has not changed for longer than one step of
// that clock: then nobody is in the middle of writing, and what comes later has another time.
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
constexpr uint32_t g_u32Settled = 20;   // ms, like the others: longer than a step of the clock that dates files
constexpr uint32_t g_u32SettleLimit = 1000;
constexpr uint64_t g_u64ClockPerMillisecond = 10000;
constexpr int g_iChangesAtOnce = 256;
constexpr uint32_t g_u32QueueEntries = 16;
constexpr uint32_t g_u32EventsPause = 100;
constexpr uint32_t g_u32EndTimeout = 5000;
constexpr int32_t g_i32MonitorTimeout = 70000;
constexpr int32_t g_i32EventsTimeout = 5000;
constexpr uint32_t g_u32ResultStop = 8;   // of the callback, to the events thread
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

// The last that holds the monitor may be one of its threads, which frees its own thread object then.
COsFileMonitor::~COsFileMonitor()
{
    OSMEMDELETE(m_posthreadMonitor);
    OSMEMDELETE(m_posthreadEvents);
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
    MonitorStop();   // one that its callback has stopped may still be on its way out

    OsFileInfo osfileinfo{};
    if (OsFileGetInfo(a_szPath, &osfileinfo) != EOSSTS_SUCCESS || osfileinfo.eosfiletype == OS_FILETYPE_FOLDER)
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

    // The callback may free this object in the initial call: nothing of it is touched any more when it was stopped.
    posfilemonitor->CallInitially();
    if (posfilemonitor->IsStopped())
        return EOSSTS_EXITED;
    const EOSSTS eossts = posfilemonitor->Launch();
    if (eossts != EOSSTS_SUCCESS)
        MonitorStop();
    return eossts;
}

// All that the threads find there, and what the file is like when the start is asked for.
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
    TakeBaseline();
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

// False when the monitor is stopping. Who stops it may do so in the callback, holding the lock, and then waits for the
// other thread.
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

// -------------------------------------------------------------------------------------------------- the verdict

OsFileLook COsFileMonitor::Examine() const
{
    OsFileLook look;
    look.blThere = OsFileReadIdentity(m_osfilemonitorstate.szPath, 0, &look.platfileidentity);
    return look.blThere ? look : OsFileLook{};
}

// Looks until two looks agree. False when that did not come about, because somebody writes on and on or because the
// monitor stops.
bool COsFileMonitor::Settle(OsFileLook& a_look) const
{
    for (uint32_t u32Waited = 0; u32Waited < g_u32SettleLimit && !m_blStop; u32Waited += g_u32Settled)
    {
        PlatWaitAny(&m_plathandleStop, 1, g_u32Settled);
        const OsFileLook look = Examine();
        if (look == a_look)
            return true;
        a_look = look;
    }
    return false;
}

// A file that was written just now may be written again within the same step of the clock.
void COsFileMonitor::TakeBaseline()
{
    m_look = Examine();
    m_blVouched =
        m_look.platfileidentity.u64WriteTime + g_u32Settled * g_u64ClockPerMillisecond < PlatClock() || Settle(m_look);
}

void COsFileMonitor::Judge(uint32_t a_u32Event)
{
    OsFileLook look = Examine();
    if (m_blVouched && look == m_look)
        return;
    const bool blSettled = Settle(look);
    if (!IsRunning() || (m_blVouched && look == m_look))
        return;
    m_look = look;
    m_blVouched = blSettled;
    if (look.blThere && OpenWatched())
    {
        m_osfilemonitorstate.eossts = EOSSTS_SUCCESS;
        Report(a_u32Event);
        return;
    }
    m_look = {};      // somebody may have it to himself: when he lets it go, it has changed
    CloseWatched();   // a deleted file that is still open may keep its folder alive, and what tells its end
    if (m_osfilemonitorstate.eossts == EOSSTS_SUCCESS)
    {
        OSLOG(OS_LOG_ERROR, "monitor>>> GetFileTime failed...<%s>", m_osfilemonitorstate.szPath);
        ReportUnreadable();
    }
}

bool COsFileMonitor::OpenWatched()
{
    CloseWatched();
    char16_t wszPath[OS_WIDEPATHSIZE];
    if (!OsPathToSystem(wszPath, OS_WIDEPATHSIZE, m_osfilemonitorstate.szPath))
        return false;
    m_plathandleWatched =
        PlatFileOpen(wszPath, PLAT_ACCESS_READ, PLAT_SHARE_READ | PLAT_SHARE_WRITE | PLAT_SHARE_DELETE,
                     PLAT_DISPOSITION_OPENEXISTING, 0);
    return m_plathandleWatched != PLAT_INVALID;
}

void COsFileMonitor::CloseWatched()
{
    if (m_plathandleWatched != PLAT_INVALID)
        PlatClose(m_plathandleWatched);
    m_plathandleWatched = PLAT_INVALID;
}

void COsFileMonitor::Report(uint32_t a_u32Event)
{
    Call([&](OsFileMonitorRecord& a_osfilemonitorrecord) {
        SStrCpy(a_osfilemonitorrecord.szEntry, sizeof a_osfilemonitorrecord.szEntry, m_szEntry);
        OsPathCopy(a_osfilemonitorrecord.szPath, sizeof a_osfilemonitorrecord.szPath, m_szFolder);
        OsPathAppend(a_osfilemonitorrecord.szPath, sizeof a_osfilemonitorrecord.szPath, m_szEntry);
        a_osfilemonitorrecord.u32Event = a_u32Event;
        a_osfilemonitorrecord.plathandle = m_plathandleWatched;
        a_osfilemonitorrecord.blFirstChange = m_blFirstChange;
    });
    m_blFirstChange = false;
    OsMemLogUsage(g_szSource, static_cast<uint32_t>(__LINE__));
}

void COsFileMonitor::ReportUnreadable()
{
    Call([this](OsFileMonitorRecord& a_osfilemonitorrecord) {
        m_osfilemonitorstate.eossts = EOSSTS_NOTFOUND;
        a_osfilemonitorrecord.plathandle = PLAT_INVALID;
    });
}

// ------------------------------------------------------------------------------------------- the monitor thread

// Who stops the monitor keeps it until this thread has gone, unless he is this thread.
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
    const ScopeGuard close([this] {
        CloseFolder();
        CloseWatched();
    });
    if (!OpenFolder())
    {
        OSMEMDELETE(m_posthreadEvents);
        OSMEMDELETE(m_poslnkQueue);
        return;
    }
    if (!TakeFirstLook())
    {
        m_posthreadEvents->Stop(true, g_i32EventsTimeout);
        return;
    }
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

bool COsFileMonitor::OpenFolder()
{
    char16_t wszFolder[OS_WIDEPATHSIZE];
    if (OsPathToSystem(wszFolder, OS_WIDEPATHSIZE, m_szFolder))
        m_plathandleFolder = PlatWatchCreate(wszFolder);
    if (m_plathandleFolder == PLAT_INVALID)
        OSLOG(OS_LOG_ERROR, "OsFileWin32CreateFileW failed...<%s>", m_szFolder);
    return m_plathandleFolder != PLAT_INVALID;
}

void COsFileMonitor::CloseFolder()
{
    if (m_plathandleFolder != PLAT_INVALID)
        PlatClose(m_plathandleFolder);
    m_plathandleFolder = PLAT_INVALID;
}

// A file that somebody replaces or has to himself just now has a moment to come back. False when the monitor has to
// end.
bool COsFileMonitor::TakeFirstLook()
{
    for (uint32_t u32Waited = 0; !OpenWatched() && u32Waited < g_u32SettleLimit && IsRunning();
         u32Waited += g_u32Settled)
        PlatWaitAny(&m_plathandleStop, 1, g_u32Settled);
    if (!IsRunning())
        return false;

    PlatFileIdentity platfileidentity;
    const bool blOpen = m_plathandleWatched != PLAT_INVALID;
    if (blOpen && PlatFileGetIdentity(m_plathandleWatched, &platfileidentity))
        return true;
    OSLOG(OS_LOG_ERROR, "monitor>>> %s failed...<%s>", blOpen ? "GetFileTime" : "CreateFileW",
          m_osfilemonitorstate.szPath);
    ReportUnreadable();
    return false;
}

void COsFileMonitor::Watch()
{
    // What happened between the start and the watch.
    if (m_u32Mask & OS_FILEMONITOR_MODIFIED)
        Judge(OS_FILEMONITOR_MODIFIED);

    const PlatHandle aplathandle[] = {m_plathandleStop, m_plathandleFolder};
    while (IsRunning() && PlatWaitAny(aplathandle, 2, PLAT_INFINITE) == 1)
    {
        uint32_t u32Event = 0;
        const bool blWatching = TakeChanges(&u32Event);
        if (u32Event)
            Judge(u32Event);
        if (blWatching)
            continue;
        OSLOG(OS_LOG_ERROR, "monitor>>> ReadDirectoryChangesW failed...<%s>", m_osfilemonitorstate.szPath);
        return;
    }
}

// The bit of a change when it is a reason to look at the file, else 0. Notes may name a file in another way than we do:
// where modifications are wanted, any will do.
uint32_t COsFileMonitor::EventOf(const PlatWatchChange& a_platwatchchange) const
{
    if (m_u32Mask & OS_FILEMONITOR_MODIFIED)
        return OS_FILEMONITOR_MODIFIED;
    char szEntry[OS_PATHSIZE];
    CopyStringToUtf8(szEntry, sizeof szEntry, a_platwatchchange.wszName, SIZE_MAX);
    const uint32_t u32Event = 1u << a_platwatchchange.platwatchaction;
    return StrICmp(szEntry, m_szEntry) == 0 ? u32Event & m_u32Mask : 0;
}

// False when the folder cannot be watched any more. Of a folder where something happens all the time the rest is left
// for the next turn.
bool COsFileMonitor::TakeChanges(uint32_t* a_pu32Event)
{
    PlatWatchChange platwatchchange;
    for (int i = 0; i < g_iChangesAtOnce; ++i)
    {
        if (!PlatWatchRead(m_plathandleFolder, &platwatchchange))
            return PlatGetLastError() == PLAT_ERROR_WOULDBLOCK;
        if (*a_pu32Event == 0)
            *a_pu32Event = EventOf(platwatchchange);
    }
    return true;
}

// -------------------------------------------------------------------------------------------- the events thread

// It delivers what is in the queue. Nothing puts anything there today: changes are delivered by the monitor thread.
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

// A monitor that was stopped in its callback stays the object's until the owner is here again: he waits for its end.
void COsFileImpl::MonitorStop()
{
    const MonitorReference posfilemonitorbase = Monitor();
    if (posfilemonitorbase && posfilemonitorbase->Stop())
        SetMonitor(nullptr);
}

// False on the very thread, which then ends by itself.
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
