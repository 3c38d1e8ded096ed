// os_costhread_run.cpp: one start of a thread: the code on the new thread, confirming the start, stopping, waiting and
// terminating.
//
// The thread only advances its state and signals two events, "started" and "ended". Only the system can tell that it
// has completely ended. Each wait has one deadline, on the monotonic clock.
#include "os_costhread_impl.h"

#include "os_cosarguments.h"
#include "os_cosstring.h"
#include "os_log.h"
#include "os_scope.h"

#include "plat_system.h"
#include "plat_thread.h"
#include "plat_wait.h"

#include <algorithm>
#include <exception>

static constexpr char g_szSource[] = "os/source/os_costhread";

static constexpr uint32_t g_u32WaitAbandoned = 128;   // the result on some systems when the event's owner is gone
static constexpr uint32_t g_u32LastSteps = 100;   // milliseconds for a thread that is already leaving at the timeout
static constexpr uint32_t g_u32Yields = 500;      // for those last steps; then the wait sleeps

static std::atomic<uint64_t> g_u64ForcedAffinity{0};

void OsHandle::Close()
{
    if (m_plathandle != PLAT_INVALID)
        PlatClose(m_plathandle);
    m_plathandle = PLAT_INVALID;
}

// ----------------------------------------------------------------------------------------------------------- start

OsThreadRun::OsThreadRun(COsThread* a_posthread, const COsThreadImpl* a_posthreadimpl, const char* a_szDisplayName,
                         OsThreadProc a_osthreadproc, void* a_pvArgument)
    : m_posthread(a_posthread),
      m_posthreadimpl(a_posthreadimpl),
      m_osthreadproc(a_osthreadproc),
      m_pvArgument(a_pvArgument)
{
    SStrCpy(m_szDisplayName, sizeof m_szDisplayName, a_szDisplayName);
}

OsThreadRun::~OsThreadRun()
{
    if (m_plathandleThread != PLAT_INVALID)
        PlatClose(m_plathandleThread);
}

bool OsThreadRun::CreateEvents()
{
    for (OsHandle* const poshandle : {&m_oshandleStop, &m_oshandleStarted, &m_oshandleEnded})
    {
        poshandle->Fill() = PlatEventCreate(PLAT_RESET_MANUAL, nullptr);
        if (poshandle->Get() == PLAT_INVALID)
            return false;
    }
    return true;
}

bool OsThreadRun::Begin(const std::shared_ptr<OsThreadRun>& a_sharedptrSelf)
{
    m_sharedptrSelf = a_sharedptrSelf;
    m_plathandleThread = PlatThreadBegin(Trampoline, this, nullptr);
    if (m_plathandleThread != PLAT_INVALID)
        return true;
    m_u32State = OS_THREADSTATE_ENDED;
    LetGo();
    return false;
}

EOSSTS OsThreadRun::AwaitStart()
{
    const PlatHandle aplathandle[] = {m_oshandleStarted.Get(), m_oshandleEnded.Get()};
    const uint32_t u32Wait =
        m_u32State == OS_THREADSTATE_RUNNING ? 0 : PlatWaitAny(aplathandle, 2, OS_THREADSTARTTIMEOUT);
    if (u32Wait == 0)
        return EOSSTS_SUCCESS;
    if (u32Wait == 1)
        return EOSSTS_FAIL;
    return GiveUp() ? EOSSTS_TIMEOUT : EOSSTS_SUCCESS;
}

bool OsThreadRun::GiveUp()
{
    uint32_t u32State = OS_THREADSTATE_STARTING;
    return m_u32State.compare_exchange_strong(u32State, OS_THREADSTATE_LEAVING);
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

OsThreadRun* OsThreadRun::Own(const COsThreadImpl* a_posthreadimpl)
{
    return t_posthreadrun && t_posthreadrun->m_posthreadimpl == a_posthreadimpl ? t_posthreadrun : nullptr;
}

static uint32_t Crashed()
{
    OSLOG(OS_LOG_CHECK, "thr>>> thread crash detected...");
    return 0;
}

uint32_t OsThreadRun::Trampoline(void* a_pvRun)
{
    auto* const posthreadrun = static_cast<OsThreadRun*>(a_pvRun);
    t_posthreadrun = posthreadrun;
    const ScopeGuard tellEnd([posthreadrun] {
        t_posthreadrun = nullptr;
        posthreadrun->m_u32State = OS_THREADSTATE_LEAVING;
        PlatEventSet(posthreadrun->m_oshandleEnded.Get());
        posthreadrun->LetGo();
    });
    try
    {
        const uint32_t u32ExitValue = Enter(posthreadrun);
        return u32ExitValue == PLAT_STILLACTIVE ? 0 : u32ExitValue;   // that value means that the thread is running
    }
    catch (const std::exception&)
    {
        return Crashed();
    }
    catch (...)
    {
        if (t_blLeaving)
            throw;
        return Crashed();
    }
}

uint32_t OsThreadRun::Enter(OsThreadRun* a_posthreadrun)
{
    a_posthreadrun->m_u64Id = PlatThreadId();
    if (OsLogWorkingWord())
        OSLOG(OS_LOG_NOTE, "thr>>> new thread starting...");
    return a_posthreadrun->CallProcedure();
}

uint32_t OsThreadRun::CallProcedure()
{
    ApplyForcedAffinity();
    uint32_t u32State = OS_THREADSTATE_STARTING;
    if (!m_u32State.compare_exchange_strong(u32State, OS_THREADSTATE_RUNNING))
        return 0;
    PlatEventSet(m_oshandleStarted.Get());
    PlatSetLastError(PLAT_ERROR_NONE);
    return m_osthreadproc(m_posthread);
}

// The thread's reference is released by the thread, or by the caller that finds that it ended without its last step.
void OsThreadRun::LetGo()
{
    if (!m_blLetGo.exchange(true))
        const std::shared_ptr<OsThreadRun> sharedptrSelf = std::move(m_sharedptrSelf);
}

// ------------------------------------------------------------------------------------------------------ stop and end

bool OsThreadRun::HasEnded()
{
    uint32_t u32ExitCode = 0;
    if (m_u32State == OS_THREADSTATE_ENDED)
        return true;
    const PlatHandle plathandle = m_plathandleThread;
    if (plathandle == PLAT_INVALID)
        return false;   // about to run
    if (PlatThreadExitCode(plathandle, &u32ExitCode) && u32ExitCode == PLAT_STILLACTIVE)
        return false;
    m_u32State = OS_THREADSTATE_ENDED;
    LetGo();
    return true;
}

bool OsThreadRun::WaitForEnd(uint32_t a_u32Timeout)
{
    if (IsSelf())
        return false;
    if (HasEnded())
        return true;
    if (a_u32Timeout == 0)
        return false;
    const uint64_t u64End = a_u32Timeout == PLAT_INFINITE ? UINT64_MAX : PlatTicks() + a_u32Timeout;
    const PlatHandle plathandleEnded = m_oshandleEnded.Get();
    PlatWaitAny(&plathandleEnded, 1, a_u32Timeout);
    // The thread signalled this in its last step here. The system then needs an instant, unless a destructor of a
    // thread-local object takes longer.
    for (uint32_t u32 = 0; !HasEnded(); ++u32)
    {
        if (PlatTicks() >= u64End)
            return false;
        PlatSleep(u32 < g_u32Yields ? 0 : 1);
    }
    return true;
}

void OsThreadRun::TellStopping()
{
    if (m_u32StopState.exchange(OS_THREADSTOP_REQUESTED) != OS_THREADSTOP_REQUESTED)
        OSLOG(OS_LOG_NOTE, "thr>>> stopping...<%s>", m_szDisplayName);
}

// Repeats the request with every slice, because the procedure may consume one for another purpose.
void OsThreadRun::Stop(int32_t a_i32Timeout)
{
    const COsLogNoWait oslognowait;   // the thread may be the one that all log lines wait for
    TellStopping();
    if (HasEnded())
        return;   // also a parent's thread: its events are the parent's
    const uint64_t u64End = PlatTicks() + static_cast<uint64_t>(std::max(a_i32Timeout, 0));
    uint64_t u64Now = 0;
    do
    {
        PlatEventSet(m_oshandleStop.Get());
        u64Now = PlatTicks();
        const uint64_t u64Left = u64End > u64Now ? u64End - u64Now : 0;
        if (WaitForEnd(static_cast<uint32_t>(std::min<uint64_t>(u64Left, OS_THREADSLICE))))
            return;
    } while (u64Now < u64End);
    Terminate();
}

// A thread that is leaving may hold locks that the process needs, so it gets some extra time.
void OsThreadRun::Terminate()
{
    if (IsLeaving() && WaitForEnd(g_u32LastSteps))
        return;
    if (m_blTerminating.exchange(true))
    {
        WaitForEnd(PLAT_TERMINATEWAIT);
        return;
    }
    OSLOG(OS_LOG_ERROR,
          "thr>>> something is wrong, a thread we asked to stop isn't terminating, so we're terminating it...<%s>",
          m_szDisplayName);
    if (!TerminateThread())
        OSLOG(OS_LOG_ERROR, "thr>>> the thread cannot be terminated now, so we're leaving it...<%s>", m_szDisplayName);
}

bool OsThreadRun::TerminateThread()
{
    for (uint32_t u32 = 0; m_plathandleThread == PLAT_INVALID && u32 < PLAT_TERMINATEWAIT; ++u32)
    {
        if (HasEnded())
            return true;
        PlatSleep(1);   // it is just being started
    }
    if (!PlatThreadTerminate(m_plathandleThread, 0) || !HasEnded())
        return false;
    PlatEventSet(m_oshandleEnded.Get());
    return true;
}

// --------------------------------------------------------------------------------- called by the thread procedure

void OsThreadRun::StopSelf(bool a_blIgnoreSelf)
{
    if (a_blIgnoreSelf)
    {
        OSLOG(OS_LOG_NOTE, "thr>>> ignoring request to stop ourselves (this is okay)...<%s>", m_szDisplayName);
        return;
    }
    TellStopping();
    if (IsLeaving())
        return;
    OSLOG(OS_LOG_CHECK, "thr>>> stop called from thread it's stopping (bad programmer)...<%s>", m_szDisplayName);
    OsArgumentsClearThread();
    Leave();
}

EOSSTS OsThreadRun::WaitForStop(uint32_t a_u32Timeout) const
{
    const PlatHandle plathandleStop = m_oshandleStop.Get();
    const uint32_t u32Wait = PlatWaitAny(&plathandleStop, 1, a_u32Timeout);
    switch (u32Wait)
    {
    case 0:
        PlatEventReset(plathandleStop);
        return EOSSTS_SUCCESS;
    case PLAT_WAIT_TIMEOUT:
        return EOSSTS_TIMEOUT;
    case g_u32WaitAbandoned:
        OSLOG(OS_LOG_ERROR, "thr>>> unexpected thread termination, we lost the event handle...<%s>", m_szDisplayName);
        return EOSSTS_FAIL;
    default:
        OSLOG(OS_LOG_ERROR, "thr>>> unexpected status, assuming the thread is dead...%d <%s>",
              static_cast<int>(u32Wait), m_szDisplayName);
        return EOSSTS_FAIL;
    }
}

void OsThreadRun::Exit()
{
    OsArgumentsClearThread();
    if (OsLogWorkingWord())
        OSLOG(OS_LOG_MILESTONE, "thr>>> Exiting...<%s>", m_szDisplayName);
    Leave();
}

void OsThreadRun::Leave()
{
    t_posthreadrun->m_u32State = OS_THREADSTATE_LEAVING;
    t_blLeaving = true;
    PlatThreadExit(0);
}
