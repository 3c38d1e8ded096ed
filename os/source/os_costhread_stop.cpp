// os_costhread_stop.cpp: how a thread ends: stop, wait, exit, the object's end.
#include "os_costhread_impl.h"

#include "os_cosarguments.h"
#include "os_cosspinlock.h"
#include "os_log.h"
#include "os_scope.h"

#include "plat_thread.h"
#include "plat_wait.h"

static constexpr char g_szSource[] = "os/source/os_costhread";

static constexpr uint32_t g_u32WaitAbandoned = 128;   // what some systems answer when the event's owner has gone

void COsThreadImpl::CloseAndForget(PlatHandle& a_plathandle)
{
    if (a_plathandle != PLAT_INVALID)
        PlatClose(a_plathandle);
    a_plathandle = PLAT_INVALID;
}

// ------------------------------------------------------------------------------------------------------ stop and end

bool COsThreadImpl::IsSelf() const
{
    return t_posthreadimpl == this;
}

bool COsThreadImpl::HasEnded() const
{
    uint32_t u32ExitCode = 0;
    return !PlatThreadExitCode(m_plathandleThread, &u32ExitCode) || u32ExitCode != PLAT_STILLACTIVE;
}

bool COsThreadImpl::WaitForEnd(uint32_t a_u32Timeout)
{
    if (m_plathandleThread == PLAT_INVALID)
        return true;
    if (IsSelf())
        return false;
    if (HasEnded())
        return true;
    if (PlatWaitAny(&m_plathandleEnded, 1, a_u32Timeout) != 0)
        return HasEnded();
    // The thread has told so in its last step here; the system needs an instant to see it off.
    while (!HasEnded())
        PlatSleep(0);
    return true;
}

void COsThreadImpl::Stop(bool a_blIgnoreSelf, int32_t a_i32Timeout)
{
    if (IsSelf())
    {
        StopSelf(a_blIgnoreSelf);
    }
    else
    {
        StopOther(a_i32Timeout);
    }
}

void COsThreadImpl::StopOther(int32_t a_i32Timeout)
{
    const COsSpinGuard spinguard(&m_u64StopLock);
    if (!m_blRunning)
        return;
    m_blRunning = false;
    OSLOG(OS_LOG_NOTE, "thr>>> stopping...<%s>", m_szDisplayName);
    if (m_u32Status != OS_THREADSTATUS_STOPPED && m_u32StopState != OS_THREADSTOP_REQUESTED)
        AskToEnd(a_i32Timeout);
    WaitForEnd(PLAT_INFINITE);   // a thread that has called Exit() or has crashed is in its last steps
    Clear();
}

// Asks again with every slice: the procedure may take a request for something else.
void COsThreadImpl::AskToEnd(int32_t a_i32Timeout)
{
    m_u32StopState = OS_THREADSTOP_REQUESTED;
    PlatEventSet(m_plathandleStop);
    if (WaitForEnd(0))
        return;
    for (int64_t i64Waited = 0; i64Waited < a_i32Timeout; i64Waited += OS_THREADSLICE)
    {
        if (WaitForEnd(OS_THREADSLICE))
            return;
        PlatEventSet(m_plathandleStop);
    }
    OSLOG(OS_LOG_ERROR,
          "thr>>> something is wrong, a thread we asked to stop isn't terminating, so we're terminating it...<%s>",
          m_szDisplayName);
    if (PlatThreadTerminate(m_plathandleThread, 0))
        PlatEventSet(m_plathandleEnded);
}

void COsThreadImpl::StopSelf(bool a_blIgnoreSelf)
{
    const bool blLocked = LockUnlessBeingStopped();
    const ScopeGuard unlock([this, blLocked] {
        if (blLocked)
            SpinLockRelease(&m_u64StopLock);
    });
    if (blLocked && !m_blRunning)
        return;
    if (a_blIgnoreSelf)
    {
        OSLOG(OS_LOG_NOTE, "thr>>> ignoring request to stop ourselves (this is okay)...<%s>", m_szDisplayName);
        return;
    }
    m_blRunning = false;
    OSLOG(OS_LOG_NOTE, "thr>>> stopping...<%s>", m_szDisplayName);
    const bool blLeave = m_u32Status != OS_THREADSTATUS_STOPPED;   // else it is leaving already
    if (blLeave)
        OSLOG(OS_LOG_CHECK, "thr>>> stop called from thread it's stopping (bad programmer)...<%s>", m_szDisplayName);
    if (blLocked)
        Clear();
    if (!blLeave)
        return;
    OsArgumentsClearThread();
    Leave();
}

// For the thread itself. False when another holds the lock to stop this very thread: it waits for our end and does the
// rest. To wait for the lock then would keep both waiting until that stop runs out of time.
bool COsThreadImpl::LockUnlessBeingStopped()
{
    while (!SpinLockTry(&m_u64StopLock))
    {
        if (m_u32StopState == OS_THREADSTOP_REQUESTED)
            return false;
        PlatSleep(0);
    }
    return true;
}

void COsThreadImpl::Clear()
{
    m_pvArgument = nullptr;
    m_u64Id = 0;
    *m_szDisplayName = 0;
    m_u32StopState = OS_THREADSTOP_NONE;
    m_u32Status = OS_THREADSTATUS_STOPPED;
}

// Lets the thread of the last start go, which has ended or is about to. A thread that destroys its own object does not
// touch it any more.
void COsThreadImpl::CloseThread()
{
    if (IsSelf())
    {
        t_posthreadimpl = nullptr;
    }
    else
    {
        WaitForEnd(PLAT_INFINITE);
    }
    CloseAndForget(m_plathandleThread);
}

COsThreadImpl::~COsThreadImpl()
{
    CloseThread();
    CloseAndForget(m_plathandleStop);
    CloseAndForget(m_plathandleStarted);
    CloseAndForget(m_plathandleEnded);
    ForgetChild();
}

// ----------------------------------------------------------------------------------------- what a procedure calls

EOSSTS COsThreadImpl::WaitForStop(uint32_t a_u32Timeout)
{
    if (m_u64Id == 0)
    {
        OSLOG(OS_LOG_ERROR, "thr>>> pod.m_hEvent is NULL...");
        return EOSSTS_FAIL;
    }
    const uint32_t u32Wait = PlatWaitAny(&m_plathandleStop, 1, a_u32Timeout);
    switch (u32Wait)
    {
    case 0:
        PlatEventReset(m_plathandleStop);
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

void COsThreadImpl::Exit()
{
    if (!IsSelf())
    {
        OSLOG(OS_LOG_ERROR, "thr>>> bad exit attempt...<%s> %u %llu", m_szDisplayName,
              static_cast<unsigned>(PlatThreadId()), static_cast<unsigned long long>(m_u64Id));
        return;
    }
    OsArgumentsClearThread();
    if (OsLogWorkingWord())
        OSLOG(OS_LOG_MILESTONE, "thr>>> Exiting...<%s>", m_szDisplayName);
    m_u32Status = OS_THREADSTATUS_STOPPED;
    Leave();
}

void COsThreadImpl::Leave()
{
    t_blLeaving = true;
    PlatThreadExit(0);
}
