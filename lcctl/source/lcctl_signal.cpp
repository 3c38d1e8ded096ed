// lcctl_signal.cpp: recording and forwarding signals.
#include "lcctl_signal.h"

#include <csignal>

#include <sys/types.h>

static volatile std::sig_atomic_t g_iAsked = 0;
static volatile std::sig_atomic_t g_iPassed = 0;   // the one to forward, 0 for none

static constexpr int g_aiSignal[] = {SIGINT, SIGTERM, SIGHUP};

extern "C"
{
    static void Note(int a_iSignal)
    {
        g_iAsked = 1;
        if (a_iSignal != SIGINT)
            g_iPassed = a_iSignal;
    }
}

CLcctlSignals::CLcctlSignals()
{
    g_iAsked = 0;
    g_iPassed = 0;
    for (const int iSignal : g_aiSignal)
        std::signal(iSignal, Note);
}

CLcctlSignals::~CLcctlSignals()
{
    for (const int iSignal : g_aiSignal)
        std::signal(iSignal, SIG_DFL);
}

void CLcctlSignals::PassOn(uint64_t a_u64ProcessId) const
{
    const int iSignal = g_iPassed;
    if (iSignal == 0 || a_u64ProcessId == 0)
        return;
    g_iPassed = 0;
    kill(static_cast<pid_t>(a_u64ProcessId), iSignal);
}

bool LcctlAskedToEnd()
{
    return g_iAsked != 0;
}
