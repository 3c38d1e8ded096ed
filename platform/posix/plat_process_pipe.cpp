// plat_process_pipe.cpp: pipes to children, this process's own standard streams, and where its program is.
#include "plat_posix.h"
#include "plat_process.h"

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <string_view>
#include <time.h>
#include <unistd.h>

// --------------------------------------------------------------------------------------------------------- writing

namespace
{
// Keeps the signal that a write to a pipe without readers raises away from the process: the error tells enough.
class NoPipeSignal
{
public:
    NoPipeSignal()
    {
        sigemptyset(&m_sigsetPipe);
        sigaddset(&m_sigsetPipe, SIGPIPE);
        sigset_t sigsetPending;
        sigpending(&sigsetPending);
        m_blWasPending = sigismember(&sigsetPending, SIGPIPE) == 1;
        pthread_sigmask(SIG_BLOCK, &m_sigsetPipe, &m_sigsetBefore);
    }
    ~NoPipeSignal()
    {
        const timespec timespecNone{};
        while (!m_blWasPending && sigtimedwait(&m_sigsetPipe, nullptr, &timespecNone) < 0 && errno == EINTR)
        {
        }
        pthread_sigmask(SIG_SETMASK, &m_sigsetBefore, nullptr);
    }
    NoPipeSignal(const NoPipeSignal&) = delete;
    NoPipeSignal& operator=(const NoPipeSignal&) = delete;

private:
    sigset_t m_sigsetPipe;
    sigset_t m_sigsetBefore;
    bool m_blWasPending;
};
}   // namespace

// Writes everything, also to a descriptor that others have made non-blocking.
static bool WriteAll(int a_iDescriptor, const char* a_pch, size_t a_sizetBytes)
{
    PosixIgnoreFileSizeSignal();
    const NoPipeSignal nopipesignal;
    while (a_sizetBytes > 0)
    {
        const ssize_t ssizetWritten = PosixRetry([&] { return write(a_iDescriptor, a_pch, a_sizetBytes); });
        if (ssizetWritten >= 0)
        {
            a_pch += ssizetWritten;
            a_sizetBytes -= static_cast<size_t>(ssizetWritten);
            continue;
        }
        if (errno != EAGAIN)
            return PosixFailErrno();
        pollfd pollfdRoom{a_iDescriptor, POLLOUT, 0};
        poll(&pollfdRoom, 1, -1);
    }
    return true;
}

bool PlatStandardWrite(PlatStandard a_platstandard, const void* a_pvBuffer, size_t a_sizetBytes)
{
    if (a_platstandard != PLAT_STANDARD_OUTPUT && a_platstandard != PLAT_STANDARD_ERROR)
        return PosixFail(PLAT_ERROR_INVALIDPARAMETER);
    return WriteAll(static_cast<int>(a_platstandard), static_cast<const char*>(a_pvBuffer), a_sizetBytes);
}

// ----------------------------------------------------------------------------------------------------------- pipes

bool PlatPipeCreate(PlatHandle* a_pplathandleRead, PlatHandle* a_pplathandleWrite, bool a_blReadIsOurs)
{
    int aiEnds[2];
    if (pipe2(aiEnds, O_CLOEXEC) != 0)
        return PosixFailErrno();
    if (a_blReadIsOurs)
        fcntl(aiEnds[0], F_SETFL, O_NONBLOCK);
    *a_pplathandleRead = PosixMakeHandle(PosixKind::PipeRead, aiEnds[0]);
    *a_pplathandleWrite = PosixMakeHandle(PosixKind::PipeWrite, aiEnds[1]);
    return true;
}

bool PlatPipeRead(PlatHandle a_plathandle, void* a_pvBuffer, size_t a_sizetBytes, size_t* a_psizetRead)
{
    if (PosixKindOf(a_plathandle) != PosixKind::PipeRead)
        return PosixFail(PLAT_ERROR_INVALIDHANDLE);
    const ssize_t ssizetRead =
        PosixRetry([&] { return read(PosixDescriptorOf(a_plathandle), a_pvBuffer, a_sizetBytes); });
    if (ssizetRead < 0)
        return PosixFailErrno();
    if (ssizetRead == 0 && a_sizetBytes > 0)
        return PosixFail(PLAT_ERROR_BROKENPIPE);
    *a_psizetRead = static_cast<size_t>(ssizetRead);
    return true;
}

bool PlatPipeWrite(PlatHandle a_plathandle, const void* a_pvBuffer, size_t a_sizetBytes)
{
    if (PosixKindOf(a_plathandle) != PosixKind::PipeWrite)
        return PosixFail(PLAT_ERROR_INVALIDHANDLE);
    return WriteAll(PosixDescriptorOf(a_plathandle), static_cast<const char*>(a_pvBuffer), a_sizetBytes);
}

// ----------------------------------------------------------------------------------------------------- the program

bool PosixProgramPath(char* a_szPath, size_t a_sizetPath)
{
    constexpr std::string_view strviewDeleted = " (deleted)";
    const ssize_t ssizetPath = readlink("/proc/self/exe", a_szPath, a_sizetPath);
    if (ssizetPath < 0)
        return PosixFailErrno();
    if (static_cast<size_t>(ssizetPath) == a_sizetPath)
        return PosixFail(PLAT_ERROR_INSUFFICIENTBUFFER);
    a_szPath[ssizetPath] = 0;
    // A program that was replaced while it runs keeps its place.
    const std::string_view strviewPath(a_szPath);
    if (strviewPath.ends_with(strviewDeleted) && access(a_szPath, F_OK) != 0)
        a_szPath[strviewPath.size() - strviewDeleted.size()] = 0;
    return true;
}

bool PlatProgramPath(char16_t* a_wszPath, size_t a_sizetPath)
{
    char szPath[PATH_MAX];
    return PosixProgramPath(szPath, sizeof szPath) && PosixToWide(szPath, a_wszPath, a_sizetPath);
}
