// os_costhread_child.cpp: the child process of a thread object: its record, and reading from its pipes.
//
// The child's pipe ends are closed here once it runs, so that a stream whose last writer has gone is detected. Such a
// stream returns no more data. When all streams have ended, the child has ended or is about to: its exit is reported
// after the streams. A child that continues without streams is not waited for.
#include "os_costhread_impl.h"

#include "os_log.h"

#include "plat_process.h"
#include "plat_system.h"
#include "plat_wait.h"

#include <algorithm>
#include <iterator>
#include <utility>

static_assert(OS_EXITCODEUNKNOWN == PLAT_EXITCODEUNKNOWN);

static constexpr char g_szSource[] = "os/source/os_costhread";

static constexpr uint64_t g_u64EndOfSilent = 100;   // milliseconds to wait for the exit of a child without streams

// ------------------------------------------------------------------------------------------------------ the record

COsThreadImpl::Child COsThreadImpl::LastChild() const
{
    const std::lock_guard<std::mutex> guard(m_mutex);
    return m_child;
}

COsThreadImpl::Child COsThreadImpl::RunningChild() const
{
    const std::lock_guard<std::mutex> guard(m_mutex);
    return m_child && !m_child->blEnded ? m_child : nullptr;
}

// Null releases the last child but keeps its process handle: a caller may still use it.
void COsThreadImpl::TakeChild(Child a_child)
{
    std::shared_ptr<OsHandle> sharedptrFormer;   // released after the lock, like the child
    const std::lock_guard<std::mutex> guard(m_mutex);
    m_child.swap(a_child);
    if (a_child)
        sharedptrFormer = std::exchange(m_sharedptrFormerProcess, a_child->sharedptrProcess);
}

// Another thread may have stored it before, and the object may have another child by now.
void COsThreadImpl::NoteEnd(OsChild* a_poschild, uint32_t a_u32ExitCode)
{
    const std::lock_guard<std::mutex> guard(m_mutex);
    if (!a_poschild->blEnded)
        m_u32ChildExitCode = a_u32ExitCode;
    a_poschild->blEnded = true;
}

PlatHandle COsThreadImpl::ChildProcess() const
{
    const Child child = RunningChild();
    return child ? child->sharedptrProcess->Get() : PLAT_INVALID;
}

uint64_t COsThreadImpl::ChildProcessId() const
{
    const Child child = RunningChild();
    return child ? child->u64ProcessId : 0;
}

bool COsThreadImpl::ChildIsRunning()
{
    const Child child = RunningChild();
    if (!child)
        return false;
    uint32_t u32ExitCode = PLAT_EXITCODEUNKNOWN;
    if (PlatProcessExitCode(child->sharedptrProcess->Get(), &u32ExitCode) && u32ExitCode == PLAT_STILLACTIVE)
        return true;
    NoteEnd(child.get(), u32ExitCode);
    return false;
}

// -------------------------------------------------------------------------------------------------- reading, writing

static bool HasPipes(const OsChild* a_poschild)
{
    const bool blPipes = a_poschild && a_poschild->blPipes;
    if (!blPipes)
        OSLOG(OS_LOG_ERROR, "Not set up for standard io...");
    return blPipes;
}

// Pipe data has priority over the child's exit, and a cancel over both, for a child that writes without pause.
static EOSCHILDWAIT WaitForChild(const OsChild& a_oschild, bool a_blEnded, bool a_blOutputOnly,
                                 uint64_t a_u64Milliseconds)
{
    const std::pair<PlatHandle, EOSCHILDWAIT> apairSource[] = {
        {a_oschild.oshandleCancel.Get(), OS_CHILDWAIT_CANCEL},
        {a_oschild.aoshandlePipe[PLAT_STANDARD_OUTPUT].Get(), OS_CHILDWAIT_OUTPUT},
        {a_blOutputOnly ? PLAT_INVALID : a_oschild.aoshandlePipe[PLAT_STANDARD_ERROR].Get(), OS_CHILDWAIT_ERROR},
        {a_blEnded ? PLAT_INVALID : a_oschild.sharedptrProcess->Get(), OS_CHILDWAIT_ENDED},
    };
    PlatHandle aplathandle[std::size(apairSource)];
    EOSCHILDWAIT aeoschildwait[std::size(apairSource)];
    uint32_t u32Count = 0;
    for (const auto& [plathandle, eoschildwait] : apairSource)
    {
        aplathandle[u32Count] = plathandle;
        aeoschildwait[u32Count] = eoschildwait;
        u32Count += plathandle != PLAT_INVALID ? 1 : 0;
    }
    const uint32_t u32Wait = PlatWaitAny(aplathandle, u32Count, static_cast<uint32_t>(a_u64Milliseconds));
    if (u32Wait == PLAT_WAIT_TIMEOUT)
        return OS_CHILDWAIT_TIMEOUT;
    return u32Wait < u32Count ? aeoschildwait[u32Wait] : OS_CHILDWAIT_FAILED;
}

// EOSSTS_DISCONNECTED when the stream has no writer left.
static EOSSTS ReadStream(OsHandle* a_poshandle, char* a_szBuffer, size_t a_sizetBuffer, size_t* a_psizetRead)
{
    if (PlatPipeRead(a_poshandle->Get(), a_szBuffer, a_sizetBuffer, a_psizetRead))
        return *a_psizetRead > 0 ? EOSSTS_SUCCESS : EOSSTS_NOSPACE;
    switch (PlatGetLastError())
    {
    case PLAT_ERROR_WOULDBLOCK:
        return EOSSTS_NOSPACE;
    case PLAT_ERROR_BROKENPIPE:
        a_poshandle->Close();
        return EOSSTS_DISCONNECTED;
    default:
        OSLOG(OS_LOG_ERROR, "ReadFile failed...");
        return EOSSTS_FAIL;
    }
}

static bool HasFallenSilent(const OsChild& a_oschild, bool a_blOutputOnly)
{
    return a_oschild.aoshandlePipe[PLAT_STANDARD_OUTPUT].Get() == PLAT_INVALID &&
           (a_blOutputOnly || a_oschild.aoshandlePipe[PLAT_STANDARD_ERROR].Get() == PLAT_INVALID);
}

EOSSTS COsThreadImpl::ChildRead(char* a_szBuffer, size_t a_sizetBuffer, size_t* a_psizetRead, bool a_blOutputOnly,
                                uint32_t a_u32Timeout, bool* a_pblError)
{
    *a_psizetRead = 0;
    const Child child = LastChild();
    if (!HasPipes(child.get()))
        return EOSSTS_FAIL;
    uint64_t u64End = PlatTicks() + a_u32Timeout;
    for (bool blEnded = false;;)
    {
        // Once the child has ended, read again: it may have written between the last read and its exit.
        const bool blSilent = HasFallenSilent(*child, a_blOutputOnly);
        const uint64_t u64Now = PlatTicks();
        if (blSilent)
            u64End = std::min(u64End, u64Now + g_u64EndOfSilent);
        const uint64_t u64Left = blEnded || u64Now >= u64End ? 0 : u64End - u64Now;
        PlatStandard platstandard = PLAT_STANDARD_OUTPUT;
        switch (WaitForChild(*child, blEnded, a_blOutputOnly, u64Left))
        {
        case OS_CHILDWAIT_ERROR:
            platstandard = PLAT_STANDARD_ERROR;
            [[fallthrough]];
        case OS_CHILDWAIT_OUTPUT:
            if (const EOSSTS eossts =
                    ReadStream(&child->aoshandlePipe[platstandard], a_szBuffer, a_sizetBuffer, a_psizetRead);
                eossts != EOSSTS_DISCONNECTED)
            {
                if (a_pblError)
                    *a_pblError = platstandard == PLAT_STANDARD_ERROR;
                return eossts;
            }
            break;
        case OS_CHILDWAIT_ENDED:
            blEnded = true;
            break;
        case OS_CHILDWAIT_CANCEL:
            return EOSSTS_CANCELLED;
        case OS_CHILDWAIT_TIMEOUT:
            if (!blEnded)
                return blSilent ? EOSSTS_NOSPACE : EOSSTS_TIMEOUT;
            OSLOG(OS_LOG_NOTE, "Our process died...");
            return EOSSTS_EXITED;
        case OS_CHILDWAIT_FAILED:
            OSLOG(OS_LOG_ERROR, "ReadFile failed...");
            return EOSSTS_FAIL;
        }
    }
}

EOSSTS COsThreadImpl::ChildWrite(const void* a_pvBuffer, size_t a_sizetBytes)
{
    const Child child = LastChild();
    if (!HasPipes(child.get()))
        return EOSSTS_FAIL;
    if (PlatPipeWrite(child->aoshandlePipe[PLAT_STANDARD_INPUT].Get(), a_pvBuffer, a_sizetBytes))
        return EOSSTS_SUCCESS;
    OSLOG(OS_LOG_ERROR, "WriteFile failed...");
    return EOSSTS_FAIL;
}

void COsThreadImpl::ChildCancel()
{
    const Child child = LastChild();
    if (child && child->blPipes)
        PlatEventSet(child->oshandleCancel.Get());
}
