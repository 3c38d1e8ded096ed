// os_log.cpp: forwards log calls to the installed logger; the state word and its transitions.
#include "os_log.h"

std::atomic<COsLogSink*> g_poslogsink{nullptr};
std::atomic<OsLogCheckProc> g_poslogcheckproc{nullptr};

static std::atomic<int> g_iLogState{OS_LOGSTATE_ON};

void OsLogPrintf(COsLogSink* a_poslogsink, const char* a_szFile, uint32_t a_u32Line, uint32_t a_u32Level,
                 const char* a_szFormat, ...)
{
    if (!a_poslogsink)
        return;
    va_list valist;
    va_start(valist, a_szFormat);
    a_poslogsink->VPrintf(a_szFile, a_u32Line, a_u32Level, a_szFormat, valist);
    va_end(valist);
}

int OsLogGetState()
{
    return g_iLogState.load(std::memory_order_relaxed);
}

int OsLogSetState(int a_iState)
{
    int iPrevious = g_iLogState.load(std::memory_order_relaxed);
    for (;;)
    {
        const bool blStays =
            iPrevious == OS_LOGSTATE_OFF || (iPrevious == OS_LOGSTATE_NOTSTARTED && a_iState != OS_LOGSTATE_ALLOW);
        if (blStays)
            return iPrevious;
        const int iNext = a_iState == OS_LOGSTATE_ALLOW ? OS_LOGSTATE_ON : a_iState;
        if (g_iLogState.compare_exchange_weak(iPrevious, iNext, std::memory_order_relaxed))
            return iPrevious;
    }
}

static thread_local uint32_t t_u32NoWait = 0;

COsLogNoWait::COsLogNoWait()
{
    ++t_u32NoWait;
}

COsLogNoWait::~COsLogNoWait()
{
    --t_u32NoWait;
}

bool OsLogMayWait()
{
    return t_u32NoWait == 0;
}
