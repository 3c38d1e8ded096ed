// os_costhread.cpp: the thread object: the public side, start, affinity, and what runs on the new thread. Its end is in
// os_costhread_stop.cpp; child processes are spawned in os_costhread_spawn.cpp, with os_costhread_launch.cpp, and asked
// in os_costhread_child.cpp.
//
// What the starter, the stoppers and the thread tell each other goes through atomic words; two events of the thread,
// "started" and "ended", only spare them to ask again and again. That the thread has ended, past its very last step,
// is for the system to say. The handles that others wait on stay from one start to the next or to the object's end.
#include "os_costhread_impl.h"

#include "os_cosspinlock.h"
#include "os_cosstring.h"
#include "os_costime.h"
#include "os_log.h"
#include "os_new.h"
#include "os_scope.h"

#include "plat_system.h"
#include "plat_thread.h"
#include "plat_wait.h"

#include <algorithm>
#include <atomic>

static constexpr char g_szSource[] = "os/source/os_costhread";

static constexpr uint32_t g_u32StartTimeout = 5000;   // milliseconds, like the others
static constexpr int32_t g_i32FailedStartTimeout = 70000;
static constexpr int32_t g_i32DestroyTimeout = 30000;

static std::atomic<uint64_t> g_u64ForcedAffinity{0};

// ------------------------------------------------------------------------------------------------ the public object

static bool Usable(const COsThreadImpl* a_posthreadimpl)
{
    if (!a_posthreadimpl)
        OSLOG(OS_LOG_ERROR, "m_posthreadimpl is null...");
    return a_posthreadimpl != nullptr;
}

COsThread::COsThread() : m_posthreadimpl(OSMEMNEW(COsThreadImpl, this)) {}

COsThread::~COsThread()
{
    Stop(true, g_i32DestroyTimeout);
    OSMEMDELETE(m_posthreadimpl);
}

EOSSTS COsThread::Start(const char* a_szName, OsThreadProc a_osthreadproc, void* a_pvArgument)
{
    return Usable(m_posthreadimpl) ? m_posthreadimpl->Start(a_szName, a_osthreadproc, a_pvArgument) : EOSSTS_FAIL;
}

void COsThread::Stop(bool a_blIgnoreSelf, int32_t a_i32Timeout)
{
    if (Usable(m_posthreadimpl))
        m_posthreadimpl->Stop(a_blIgnoreSelf, a_i32Timeout);
}

bool COsThread::WaitForEnd(uint32_t a_u32Timeout)
{
    return !Usable(m_posthreadimpl) || m_posthreadimpl->WaitForEnd(a_u32Timeout);
}

EOSSTS COsThread::WaitForStop(uint32_t a_u32Timeout)
{
    return Usable(m_posthreadimpl) ? m_posthreadimpl->WaitForStop(a_u32Timeout) : EOSSTS_FAIL;
}

uint32_t COsThread::StopState() const
{
    return Usable(m_posthreadimpl) ? m_posthreadimpl->StopState() : 1;
}

void COsThread::Exit()
{
    if (Usable(m_posthreadimpl))
        m_posthreadimpl->Exit();
}

void* COsThread::Argument() const
{
    return Usable(m_posthreadimpl) ? m_posthreadimpl->Argument() : nullptr;
}

uint64_t COsThread::Id() const
{
    return Usable(m_posthreadimpl) ? m_posthreadimpl->Id() : 0;
}

PlatHandle COsThread::ChildProcess() const
{
    return Usable(m_posthreadimpl) ? m_posthreadimpl->ChildProcess() : PLAT_INVALID;
}

uint64_t COsThread::ChildProcessId() const
{
    return Usable(m_posthreadimpl) ? m_posthreadimpl->ChildProcessId() : 0;
}

uint32_t COsThread::ChildExitCode() const
{
    return Usable(m_posthreadimpl) ? m_posthreadimpl->ChildExitCode() : 0;
}

EOSSTS COsThread::Spawn(uint32_t a_u32Flags, const char* a_szProgram, const char* a_szArgument0,
                        std::initializer_list<const char*> a_aszArgument)
{
    if (!Usable(m_posthreadimpl))
        return EOSSTS_FAIL;
    return m_posthreadimpl->Spawn({a_u32Flags, a_szProgram, a_szArgument0, a_aszArgument});
}

bool COsThread::ChildIsRunning()
{
    return Usable(m_posthreadimpl) && m_posthreadimpl->ChildIsRunning();
}

EOSSTS COsThread::ChildRead(char* a_szBuffer, size_t a_sizetBuffer, size_t* a_psizetRead, bool a_blOutputOnly,
                            uint32_t a_u32Timeout)
{
    if (!Usable(m_posthreadimpl))
        return EOSSTS_FAIL;
    return m_posthreadimpl->ChildRead(a_szBuffer, a_sizetBuffer, a_psizetRead, a_blOutputOnly, a_u32Timeout);
}

EOSSTS COsThread::ChildWrite(const void* a_pvBuffer, size_t a_sizetBytes)
{
    return Usable(m_posthreadimpl) ? m_posthreadimpl->ChildWrite(a_pvBuffer, a_sizetBytes) : EOSSTS_FAIL;
}

void COsThread::ChildCancel()
{
    if (Usable(m_posthreadimpl))
        m_posthreadimpl->ChildCancel();
}

// ----------------------------------------------------------------------------------------------------------- start

static void FormatDisplayName(const char* a_szName, char (&a_szDisplayName)[512])
{
    OsTimeRecord ostimerecord{};
    OsTimeLocal(&ostimerecord, nullptr);
    SStrPrintf(a_szDisplayName, sizeof a_szDisplayName, "%02d-%02d:%02d:%02d.%03d-%s", ostimerecord.u16Day,
               ostimerecord.u16Hour, ostimerecord.u16Minute, ostimerecord.u16Second, ostimerecord.u16Milliseconds,
               a_szName);
}

EOSSTS COsThreadImpl::Start(const char* a_szName, OsThreadProc a_osthreadproc, void* a_pvArgument)
{
    const char* const szName = a_szName ? a_szName : "(noname)";
    char szDisplayName[sizeof m_szDisplayName];
    FormatDisplayName(szName, szDisplayName);
    if (!a_osthreadproc)
    {
        OSLOG(OS_LOG_ERROR, "thr>>> a_osthreadproc is NULL...<%s>", szDisplayName);
        return EOSSTS_NOTOPEN;
    }
    if (m_u32Status != OS_THREADSTATUS_STOPPED)
    {
        OSLOG(OS_LOG_CHECK, "thr>>> you're already running this thread...<%s>", szDisplayName);
        return EOSSTS_FAIL;
    }
    try
    {
        if (OsLogWorkingWord())
            OSLOG(OS_LOG_MILESTONE, "thr>>> starting <%s>", szName);
        return Launch(szDisplayName, a_osthreadproc, a_pvArgument);
    }
    catch (...)
    {
        OSLOG(OS_LOG_ERROR, "thr>>> exception thrown...<%s>", szDisplayName);
        AbandonStart();
        return EOSSTS_FAIL;
    }
}

EOSSTS COsThreadImpl::Launch(const char* a_szDisplayName, OsThreadProc a_osthreadproc, void* a_pvArgument)
{
    CloseThread();
    SStrCpy(m_szDisplayName, sizeof m_szDisplayName, a_szDisplayName);
    if (!PrepareEvents())
    {
        OSLOG(OS_LOG_ERROR, "thr>>> createEvent failed...<%s>", a_szDisplayName);
        return EOSSTS_FAIL;
    }
    m_pvArgument = a_pvArgument;
    m_osthreadproc = a_osthreadproc;
    m_blRunning = false;
    m_u32Start = OS_THREADSTART_PENDING;
    m_u32StopState = OS_THREADSTOP_NONE;
    m_u32Status = OS_THREADSTATUS_STARTED;

    const bool blBegun = Begin();
    if (OsLogWorkingWord())
    {
        OSLOG(OS_LOG_MILESTONE, "thr>>> id:%llu handle:%d name:<%s>", static_cast<unsigned long long>(m_u64Id),
              static_cast<int>(m_plathandleThread), a_szDisplayName);
    }
    if (!blBegun)
    {
        OSLOG(OS_LOG_ERROR, "thr>>> _beginthreadex failed...<%s>", a_szDisplayName);
        Clear();
        return EOSSTS_FAIL;
    }
    return Confirm();
}

static bool Prepare(PlatHandle& a_plathandle, PlatReset a_platreset)
{
    if (a_plathandle == PLAT_INVALID)
        a_plathandle = PlatEventCreate(a_platreset, nullptr);
    return a_plathandle != PLAT_INVALID && PlatEventReset(a_plathandle);
}

bool COsThreadImpl::PrepareEvents()
{
    return Prepare(m_plathandleStop, PLAT_RESET_MANUAL) && Prepare(m_plathandleEnded, PLAT_RESET_MANUAL) &&
           Prepare(m_plathandleStarted, PLAT_RESET_AUTO);
}

// Under the stop lock, so that whoever stops the thread from now on finds its handle. The thread itself tells its id;
// here it is only waited for when it is logged.
bool COsThreadImpl::Begin()
{
    const COsSpinGuard spinguard(&m_u64StopLock);
    uint64_t u64Id = 0;
    m_plathandleThread = PlatThreadBegin(Trampoline, m_posthread, OsLogWorkingWord() ? &u64Id : nullptr);
    if (u64Id != 0)
        m_u64Id = u64Id;
    return m_plathandleThread != PLAT_INVALID;
}

EOSSTS COsThreadImpl::Confirm()
{
    const PlatHandle aplathandle[] = {m_plathandleStarted, m_plathandleEnded};
    uint32_t u32Waited = 0;
    for (; u32Waited < g_u32StartTimeout; u32Waited += OS_THREADSLICE)
    {
        if (PlatWaitAny(aplathandle, 2, OS_THREADSLICE) == 0)
        {
            CloseAndForget(m_plathandleStarted);
            return EOSSTS_SUCCESS;
        }
        if (m_u32Status == OS_THREADSTATUS_STOPPED)
        {
            OSLOG(OS_LOG_ERROR, "thr>>> pthread_create halted while starting...");
            AbandonStart();
            return EOSSTS_FAIL;
        }
    }
    if (!GiveUp())
        return EOSSTS_SUCCESS;
    OSLOG(OS_LOG_ERROR, "thr>>> pthread_create failed...%d", static_cast<int>(u32Waited));
    AbandonStart();
    return EOSSTS_FAIL;
}

// False when the thread was faster and calls the procedure.
bool COsThreadImpl::GiveUp()
{
    uint32_t u32Pending = OS_THREADSTART_PENDING;
    return m_u32Start.compare_exchange_strong(u32Pending, OS_THREADSTART_GIVENUP) ||
           u32Pending == OS_THREADSTART_GIVENUP;
}

// From here on the procedure is not called any more, or has ended.
void COsThreadImpl::AbandonStart()
{
    if (!GiveUp())
        StopOther(g_i32FailedStartTimeout);
    Clear();
}

// -------------------------------------------------------------------------------------------------------- affinity

void OsThreadSetForcedAffinity(uint64_t a_u64Affinity)
{
    g_u64ForcedAffinity = a_u64Affinity;
}

bool OsThreadApplyAffinity(uint64_t a_u64Mask)
{
    const uint64_t u64Ideal = std::min<uint64_t>(a_u64Mask - 1, UINT32_MAX);
    if (!PlatThreadSetIdealProcessor(static_cast<uint32_t>(u64Ideal)))
    {
        OSLOG(OS_LOG_CHECK, "SetThreadIdealProcessor failed...%d", static_cast<int>(PlatGetLastError()));
        return false;
    }
    if (!PlatThreadSetAffinity(a_u64Mask))
    {
        OSLOG(OS_LOG_CHECK, "SetThreadAffinityMask failed...%d", static_cast<int>(PlatGetLastError()));
        return false;
    }
    PlatSleep(0);
    return true;
}

static void ApplyForcedAffinity()
{
    const uint64_t u64Forced = g_u64ForcedAffinity;
    if (u64Forced == 0)
        return;
    const uint32_t u32Processors = PlatProcessorCount();
    if (u32Processors == 0)
        OSLOG(OS_LOG_ERROR, "COsCfg::InfoGetLong: Unsupported...%ld >= %ld", 0L, 0L);
    if (u32Processors < 2)
        return;
    if (const uint64_t u64Mask = PlatProcessAffinity() & u64Forced)
        OsThreadApplyAffinity(u64Mask);
}

// ------------------------------------------------------------------------------------------------- on the new thread

uint32_t COsThreadImpl::Trampoline(void* a_pvArg)
{
    auto* const posthread = static_cast<COsThread*>(a_pvArg);
    t_posthreadimpl = posthread ? posthread->m_posthreadimpl : nullptr;
    const ScopeGuard tellEnd([] {
        if (t_posthreadimpl)
            PlatEventSet(t_posthreadimpl->m_plathandleEnded);
    });
    try
    {
        const uint32_t u32ExitValue = Enter(posthread);
        return u32ExitValue == PLAT_STILLACTIVE ? 0 : u32ExitValue;   // that number says that the thread runs
    }
    catch (...)
    {
        if (t_blLeaving)
            throw;
        OSLOG(OS_LOG_CHECK, "thr>>> thread crash detected...");
        if (t_posthreadimpl)
            t_posthreadimpl->m_u32Status = OS_THREADSTATUS_STOPPED;
        return 0;
    }
}

uint32_t COsThreadImpl::Enter(COsThread* a_posthread)
{
    if (OsLogWorkingWord())
        OSLOG(OS_LOG_NOTE, "thr>>> new thread starting...");
    if (!a_posthread)
    {
        OSLOG(OS_LOG_ERROR, "a_pvArg is NULL...");
        return 0;
    }
    return a_posthread->m_posthreadimpl->CallProcedure();
}

uint32_t COsThreadImpl::CallProcedure()
{
    m_u64Id = PlatThreadId();
    ApplyForcedAffinity();
    m_blRunning = true;   // a stop right after the confirmation must find it
    uint32_t u32Pending = OS_THREADSTART_PENDING;
    if (!m_u32Start.compare_exchange_strong(u32Pending, OS_THREADSTART_CONFIRMED))
    {
        m_blRunning = false;
        return 0;
    }
    PlatEventSet(m_plathandleStarted);
    PlatSetLastError(PLAT_ERROR_NONE);
    return m_osthreadproc(m_posthread);
}
