// os_costhread_child.cpp: the child process that a thread object carries: its record, its pipes, what is read from it.
//
// The ends of the pipes that the child has are closed here once it runs, so that a stream whose last writer has gone
// is known. Such a stream is silent from then on. Where all have ended, so has the child, or will at once: its process
// says so, after the streams. One that lives on is not waited for.
#include "os_costhread_impl.h"

#include "os_log.h"
#include "os_scope.h"

#include "plat_process.h"
#include "plat_system.h"
#include "plat_wait.h"

#include <algorithm>
#include <iterator>
#include <utility>

static constexpr char g_szSource[] = "os/source/os_costhread";

static constexpr uint64_t g_u64EndOfSilent = 100;   // milliseconds that the end of a silent child is waited for

// ------------------------------------------------------------------------------------------------------ the record

void COsThreadImpl::ChildProcessSet(PlatHandle a_plathandle, uint64_t a_u64ProcessId)
{
    m_u64ChildId = a_u64ProcessId;
    const PlatHandle plathandleBefore = m_plathandleChild.exchange(a_plathandle);
    if (plathandleBefore == PLAT_INVALID)
        return;
    PlatHandle plathandleFormer = m_plathandleFormerChild.exchange(plathandleBefore);
    CloseAndForget(plathandleFormer);
}

bool COsThreadImpl::ChildIsRunning()
{
    const PlatHandle plathandle = m_plathandleChild;
    uint32_t u32ExitCode = 0;
    if (plathandle == PLAT_INVALID)
        return false;
    if (PlatProcessExitCode(plathandle, &u32ExitCode) && u32ExitCode == PLAT_STILLACTIVE)
        return true;
    m_u32ChildExitCode = u32ExitCode;
    ChildProcessSet(PLAT_INVALID, 0);
    return false;
}

void COsThreadImpl::ForgetChild()
{
    ClosePipes();
    PlatHandle aplathandle[] = {m_plathandleCancel, m_plathandleChild, m_plathandleFormerChild};
    for (PlatHandle& plathandle : aplathandle)
        CloseAndForget(plathandle);
}

// ------------------------------------------------------------------------------------------------------- the pipes

// On failure nothing is left open.
bool COsThreadImpl::CreatePipes(PlatHandle (&a_aplathandleTheirs)[3])
{
    ScopeGuard closeOnFailure([&] {
        ClosePipes();
        for (PlatHandle& plathandle : a_aplathandleTheirs)
            CloseAndForget(plathandle);
    });
    if (m_plathandleCancel == PLAT_INVALID)
        m_plathandleCancel = PlatEventCreate(PLAT_RESET_AUTO, nullptr);
    bool blCreated = m_plathandleCancel != PLAT_INVALID;
    for (const PlatStandard platstandard : {PLAT_STANDARD_INPUT, PLAT_STANDARD_OUTPUT, PLAT_STANDARD_ERROR})
    {
        PlatHandle& plathandleOurs = m_aplathandlePipe[platstandard];
        PlatHandle& plathandleTheirs = a_aplathandleTheirs[platstandard];
        blCreated = blCreated &&
                    (platstandard == PLAT_STANDARD_INPUT ? PlatPipeCreate(&plathandleTheirs, &plathandleOurs, false)
                                                         : PlatPipeCreate(&plathandleOurs, &plathandleTheirs, true));
    }
    if (!blCreated)
    {
        OSLOG(OS_LOG_ERROR, "CreateNamedPipe failed...");
        return false;
    }
    closeOnFailure.Dismiss();
    m_blPipes = true;
    return true;
}

void COsThreadImpl::ClosePipes()
{
    for (PlatHandle& plathandle : m_aplathandlePipe)
        CloseAndForget(plathandle);
    m_blPipes = false;
}

// -------------------------------------------------------------------------------------------------- reading, writing

static bool HasPipes(bool a_blPipes)
{
    if (!a_blPipes)
        OSLOG(OS_LOG_ERROR, "Not set up for standard io...");
    return a_blPipes;
}

// What waits in a pipe comes before the child's end. A cancel comes before all, for a child that never pauses.
EOSCHILDWAIT COsThreadImpl::WaitForChild(PlatHandle a_plathandleChild, bool a_blOutputOnly, uint64_t a_u64Milliseconds)
{
    const std::pair<PlatHandle, EOSCHILDWAIT> apairSource[] = {
        {m_plathandleCancel, OS_CHILDWAIT_CANCEL},
        {m_aplathandlePipe[PLAT_STANDARD_OUTPUT], OS_CHILDWAIT_OUTPUT},
        {a_blOutputOnly ? PLAT_INVALID : m_aplathandlePipe[PLAT_STANDARD_ERROR], OS_CHILDWAIT_ERROR},
        {a_plathandleChild, OS_CHILDWAIT_ENDED},
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

// EOSSTS_DISCONNECTED when the stream has no writer any more.
EOSSTS COsThreadImpl::ReadStream(PlatHandle& a_plathandle, char* a_szBuffer, size_t a_sizetBuffer, size_t* a_psizetRead)
{
    if (PlatPipeRead(a_plathandle, a_szBuffer, a_sizetBuffer, a_psizetRead))
        return *a_psizetRead > 0 ? EOSSTS_SUCCESS : EOSSTS_NOSPACE;
    switch (PlatGetLastError())
    {
    case PLAT_ERROR_WOULDBLOCK:
        return EOSSTS_NOSPACE;
    case PLAT_ERROR_BROKENPIPE:
        CloseAndForget(a_plathandle);
        return EOSSTS_DISCONNECTED;
    default:
        OSLOG(OS_LOG_ERROR, "ReadFile failed...");
        return EOSSTS_FAIL;
    }
}

bool COsThreadImpl::HasFallenSilent(bool a_blOutputOnly) const
{
    return m_aplathandlePipe[PLAT_STANDARD_OUTPUT] == PLAT_INVALID &&
           (a_blOutputOnly || m_aplathandlePipe[PLAT_STANDARD_ERROR] == PLAT_INVALID);
}

EOSSTS COsThreadImpl::ChildRead(char* a_szBuffer, size_t a_sizetBuffer, size_t* a_psizetRead, bool a_blOutputOnly,
                                uint32_t a_u32Timeout)
{
    *a_psizetRead = 0;
    if (!HasPipes(m_blPipes))
        return EOSSTS_FAIL;
    uint64_t u64End = PlatTicks() + a_u32Timeout;
    for (PlatHandle plathandleChild = m_plathandleChild;;)
    {
        // Once the child has ended, a last look: it may have written between our look at its pipes and its end.
        const bool blEnded = plathandleChild == PLAT_INVALID;
        const bool blSilent = HasFallenSilent(a_blOutputOnly);
        const uint64_t u64Now = PlatTicks();
        if (blSilent)
            u64End = std::min(u64End, u64Now + g_u64EndOfSilent);
        const uint64_t u64Left = blEnded || u64Now >= u64End ? 0 : u64End - u64Now;
        PlatStandard platstandard = PLAT_STANDARD_OUTPUT;
        switch (WaitForChild(plathandleChild, a_blOutputOnly, u64Left))
        {
        case OS_CHILDWAIT_ERROR:
            platstandard = PLAT_STANDARD_ERROR;
            [[fallthrough]];
        case OS_CHILDWAIT_OUTPUT:
            if (const EOSSTS eossts =
                    ReadStream(m_aplathandlePipe[platstandard], a_szBuffer, a_sizetBuffer, a_psizetRead);
                eossts != EOSSTS_DISCONNECTED)
                return eossts;
            break;
        case OS_CHILDWAIT_ENDED:
            plathandleChild = PLAT_INVALID;
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
    if (!HasPipes(m_blPipes))
        return EOSSTS_FAIL;
    if (PlatPipeWrite(m_aplathandlePipe[PLAT_STANDARD_INPUT], a_pvBuffer, a_sizetBytes))
        return EOSSTS_SUCCESS;
    OSLOG(OS_LOG_ERROR, "WriteFile failed...");
    return EOSSTS_FAIL;
}

void COsThreadImpl::ChildCancel()
{
    if (const PlatHandle plathandle = m_plathandleCancel; plathandle != PLAT_INVALID)
        PlatEventSet(plathandle);
}
