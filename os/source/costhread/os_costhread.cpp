// os_costhread.cpp: the thread object: the public side, start, stop and wait. The state that the object, its callers
// and the thread share per start is in os_costhread_run.cpp; child processes are spawned in os_costhread_spawn.cpp and
// os_costhread_launch.cpp, and queried in os_costhread_child.cpp.
//
// Every call takes a reference to the current start and works without the object's lock, so that the handles that it
// waits for stay open, whatever other threads do to the object.
#include "os_costhread_impl.h"

#include "os_cosstring.h"
#include "os_costime.h"
#include "os_log.h"
#include "os_new.h"

#include "plat_thread.h"

#include <mutex>
#include <utility>

static constexpr char g_szSource[] = "os/source/os_costhread";

static constexpr int32_t g_i32FailedStartTimeout = 70000;
static constexpr int32_t g_i32DestroyTimeout = 30000;

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
                            uint32_t a_u32Timeout, bool* a_pblError)
{
    if (!Usable(m_posthreadimpl))
        return EOSSTS_FAIL;
    return m_posthreadimpl->ChildRead(a_szBuffer, a_sizetBuffer, a_psizetRead, a_blOutputOnly, a_u32Timeout,
                                      a_pblError);
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

// --------------------------------------------------------------------------------------------------- the current start

// On the thread itself this is the thread's own start, even if the object has been started again.
COsThreadImpl::Run COsThreadImpl::CurrentRun() const
{
    if (const OsThreadRun* const posthreadrun = OsThreadRun::Own(this))
        return posthreadrun->Self();
    const std::lock_guard<std::mutex> guard(m_mutex);
    return m_run;
}

void COsThreadImpl::Forget(const Run& a_run)
{
    Run run;   // released after the lock
    const std::lock_guard<std::mutex> guard(m_mutex);
    if (m_run == a_run)
        run = std::exchange(m_run, nullptr);
}

// Waits for a thread that is just ending.
bool COsThreadImpl::IsBusy() const
{
    const Run run = CurrentRun();
    if (run && run->IsLeaving())
        run->WaitForEnd(OS_THREADSTARTTIMEOUT);
    return run && !run->HasEnded();
}

// False when another thread has started the object first.
bool COsThreadImpl::Claim(const Run& a_run)
{
    Run runBefore = a_run;
    const std::lock_guard<std::mutex> guard(m_mutex);
    if (m_run && !m_run->HasEnded())
        return false;
    m_run.swap(runBefore);
    return true;
}

COsThreadImpl::~COsThreadImpl()
{
    if (OsThreadRun* const posthreadrun = OsThreadRun::Own(this))
        posthreadrun->Orphan();
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
    char szDisplayName[512];
    FormatDisplayName(szName, szDisplayName);
    if (!a_osthreadproc)
    {
        OSLOG(OS_LOG_ERROR, "thr>>> a_osthreadproc is NULL...<%s>", szDisplayName);
        return EOSSTS_NOTOPEN;
    }
    if (IsBusy())
    {
        OSLOG(OS_LOG_CHECK, "thr>>> you're already running this thread...<%s>", szDisplayName);
        return EOSSTS_FAIL;
    }
    Run run;
    try
    {
        if (OsLogWorkingWord())
            OSLOG(OS_LOG_MILESTONE, "thr>>> starting <%s>", szName);
        run = std::make_shared<OsThreadRun>(m_posthread, this, szDisplayName, a_osthreadproc, a_pvArgument);
        return Launch(run);
    }
    catch (...)
    {
        OSLOG(OS_LOG_ERROR, "thr>>> exception thrown...<%s>", szDisplayName);
        AbandonStart(run);
        return EOSSTS_FAIL;
    }
}

EOSSTS COsThreadImpl::Launch(const Run& a_run)
{
    if (!a_run->CreateEvents())
    {
        OSLOG(OS_LOG_ERROR, "thr>>> createEvent failed...<%s>", a_run->DisplayName());
        return EOSSTS_FAIL;
    }
    if (!Claim(a_run))
    {
        OSLOG(OS_LOG_CHECK, "thr>>> you're already running this thread...<%s>", a_run->DisplayName());
        return EOSSTS_FAIL;
    }
    const bool blBegun = a_run->Begin(a_run);
    if (OsLogWorkingWord())
    {
        OSLOG(OS_LOG_MILESTONE, "thr>>> id:%llu handle:%d name:<%s>", static_cast<unsigned long long>(a_run->Id()),
              static_cast<int>(a_run->Handle()), a_run->DisplayName());
    }
    if (!blBegun)
    {
        OSLOG(OS_LOG_ERROR, "thr>>> _beginthreadex failed...<%s>", a_run->DisplayName());
        Forget(a_run);
        return EOSSTS_FAIL;
    }
    return Confirm(a_run);
}

EOSSTS COsThreadImpl::Confirm(const Run& a_run)
{
    const EOSSTS eossts = a_run->AwaitStart();
    if (eossts == EOSSTS_SUCCESS)
        return EOSSTS_SUCCESS;
    if (eossts == EOSSTS_TIMEOUT)
    {
        OSLOG(OS_LOG_ERROR, "thr>>> pthread_create failed...%d", static_cast<int>(OS_THREADSTARTTIMEOUT));
    }
    else
    {
        OSLOG(OS_LOG_ERROR, "thr>>> pthread_create halted while starting...");
    }
    Forget(a_run);
    return EOSSTS_FAIL;
}

void COsThreadImpl::AbandonStart(const Run& a_run)
{
    if (a_run && !a_run->GiveUp())
        a_run->Stop(g_i32FailedStartTimeout);
    Forget(a_run);
}

// ----------------------------------------------------------------------------------------------------- stop and end

// A thread that could not be ended keeps its reference to the shared state.
void COsThreadImpl::Stop(bool a_blIgnoreSelf, int32_t a_i32Timeout)
{
    if (OsThreadRun* const posthreadrun = OsThreadRun::Own(this))
    {
        posthreadrun->StopSelf(a_blIgnoreSelf);
        return;
    }
    const Run run = CurrentRun();
    if (!run)
        return;
    run->Stop(a_i32Timeout);
    Forget(run);
}

bool COsThreadImpl::WaitForEnd(uint32_t a_u32Timeout)
{
    const Run run = CurrentRun();
    return !run || run->WaitForEnd(a_u32Timeout);
}

// --------------------------------------------------------------------------------- called by the thread procedure

EOSSTS COsThreadImpl::WaitForStop(uint32_t a_u32Timeout)
{
    const Run run = CurrentRun();
    if (run)
        return run->WaitForStop(a_u32Timeout);
    OSLOG(OS_LOG_ERROR, "thr>>> pod.m_hEvent is NULL...");
    return EOSSTS_FAIL;
}

void COsThreadImpl::Exit()
{
    if (OsThreadRun* const posthreadrun = OsThreadRun::Own(this))
        posthreadrun->Exit();
    const Run run = CurrentRun();
    OSLOG(OS_LOG_ERROR, "thr>>> bad exit attempt...<%s> %u %llu", run ? run->DisplayName() : "",
          static_cast<unsigned>(PlatThreadId()), run ? static_cast<unsigned long long>(run->Id()) : 0ULL);
}

uint32_t COsThreadImpl::StopState() const
{
    const Run run = CurrentRun();
    return run ? run->StopState() : OS_THREADSTOP_NONE;
}

void* COsThreadImpl::Argument() const
{
    const Run run = CurrentRun();
    return run ? run->Argument() : nullptr;
}

uint64_t COsThreadImpl::Id() const
{
    const Run run = CurrentRun();
    return run ? run->Id() : 0;
}
