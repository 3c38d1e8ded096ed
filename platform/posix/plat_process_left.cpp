// plat_process_left.cpp: children whose handle was closed while they ran. The kernel keeps each of them, once it has
// ended, until its parent has asked for its exit code. A thread does that, which lives while there is one to wait for.
#include "plat_posix.h"

#include <cerrno>
#include <csignal>
#include <mutex>
#include <pthread.h>
#include <sys/epoll.h>
#include <sys/wait.h>
#include <unistd.h>

// Nothing here needs to be freed: the thread may run while the process ends.
static std::mutex g_mutexLeft;   // of what follows
static int g_iWatch = -1;        // becomes ready with every child that has ended
static size_t g_sizetLeft;
static bool g_blThread;

// True when there is nobody left to wait for.
static bool SeeOff(int a_iProcess)
{
    siginfo_t siginfo{};
    PosixRetry([&] { return waitid(P_PIDFD, static_cast<id_t>(a_iProcess), &siginfo, WEXITED | WNOHANG); });
    const std::lock_guard<std::mutex> guard(g_mutexLeft);
    epoll_ctl(g_iWatch, EPOLL_CTL_DEL, a_iProcess, nullptr);   // a program being started may still hold the descriptor
    close(a_iProcess);
    g_blThread = --g_sizetLeft > 0;
    return !g_blThread;
}

static void* SeeAllOff(void*)
{
    epoll_event event{};
    while (PosixRetry([&] { return epoll_wait(g_iWatch, &event, 1, -1); }) == 1 && !SeeOff(event.data.fd))
    {
    }
    return nullptr;
}

// The thread takes no signal: they are for the application's own threads.
static bool BeginThread()
{
    constexpr size_t sizetStack = 262144;
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setstacksize(&attributes, sizetStack);
    pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
    sigset_t sigsetAll;
    sigset_t sigsetBefore;
    sigfillset(&sigsetAll);
    pthread_sigmask(SIG_SETMASK, &sigsetAll, &sigsetBefore);
    pthread_t pthread;
    const int iError = pthread_create(&pthread, &attributes, SeeAllOff, nullptr);
    pthread_sigmask(SIG_SETMASK, &sigsetBefore, nullptr);
    pthread_attr_destroy(&attributes);
    return iError == 0;
}

void PosixLeaveChild(int a_iProcess)
{
    const std::lock_guard<std::mutex> guard(g_mutexLeft);
    if (g_iWatch < 0)
        g_iWatch = epoll_create1(EPOLL_CLOEXEC);
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.fd = a_iProcess;
    if (epoll_ctl(g_iWatch, EPOLL_CTL_ADD, a_iProcess, &event) != 0)
    {
        close(a_iProcess);
        return;
    }
    ++g_sizetLeft;
    g_blThread = g_blThread || BeginThread();
}
