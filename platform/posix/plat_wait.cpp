// plat_wait.cpp: events, the one wait of the system, sleeping. Events with a name are found and made in
// plat_wait_named.cpp; once open, both kinds are a descriptor that can be read while the event is signalled.
#include "plat_wait.h"
#include "plat_posix.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <poll.h>
#include <sched.h>
#include <sys/eventfd.h>
#include <time.h>
#include <unistd.h>

// -------------------------------------------------------------------------------------------------------- events

// What a thread did before it set an event is seen by the thread whose wait returns it. That the kernel passes the
// signal on says nothing to the language; these words do. Events share them, which orders more than is needed.
static std::array<std::atomic<uint32_t>, 64> g_aatomicOrder;

static std::atomic<uint32_t>& OrderOf(PlatHandle a_plathandle)
{
    const PosixKind posixkind = PosixKindOf(a_plathandle);
    const bool blNamed = posixkind == PosixKind::NamedEventAuto || posixkind == PosixKind::NamedEventManual;
    const auto sizetWord = static_cast<size_t>(PosixDescriptorOf(a_plathandle)) % g_aatomicOrder.size();
    return g_aatomicOrder[blNamed ? 0 : sizetWord];   // a name may be open on several descriptors
}

static bool IsEvent(PosixKind a_posixkind)
{
    return a_posixkind == PosixKind::EventAuto || a_posixkind == PosixKind::EventManual ||
           a_posixkind == PosixKind::NamedEventAuto || a_posixkind == PosixKind::NamedEventManual;
}

PlatHandle PlatEventCreate(PlatReset a_platreset, const char16_t* a_wszName)
{
    const bool blAuto = a_platreset == PLAT_RESET_AUTO;
    bool blExisted = false;
    const int iEvent = a_wszName ? PosixOpenNamedEvent(a_wszName, &blExisted) : eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    if (iEvent < 0)
    {
        if (!a_wszName)
            PosixFailErrno();
        return PLAT_INVALID;
    }
    PlatSetLastError(blExisted ? PLAT_ERROR_ALREADYEXISTS : PLAT_ERROR_NONE);
    if (a_wszName)
        return PosixMakeHandle(blAuto ? PosixKind::NamedEventAuto : PosixKind::NamedEventManual, iEvent) |
               PosixNamedEventOwner();
    return PosixMakeHandle(blAuto ? PosixKind::EventAuto : PosixKind::EventManual, iEvent);
}

bool PlatEventSet(PlatHandle a_plathandle)
{
    const PosixKind posixkind = PosixKindOf(a_plathandle);
    if (posixkind == PosixKind::SocketEvent)
        return true;
    if (!IsEvent(posixkind))
        return PosixFail(PLAT_ERROR_INVALIDHANDLE);

    OrderOf(a_plathandle).fetch_add(1, std::memory_order_release);
    // An eventfd takes eight bytes, a FIFO one; one that is full is signalled already.
    static constexpr uint64_t g_u64One = 1;
    const bool blNamed = posixkind == PosixKind::NamedEventAuto || posixkind == PosixKind::NamedEventManual;
    const ssize_t ssizetWritten =
        PosixRetry([&] { return write(PosixDescriptorOf(a_plathandle), &g_u64One, blNamed ? 1 : sizeof g_u64One); });
    return ssizetWritten >= 0 || errno == EAGAIN || PosixFailErrno();
}

bool PosixDrainEvent(int a_iEvent)
{
    // A named event holds one page at most, an eventfd eight bytes: one read takes all there is.
    char achTaken[PosixEventRoom];
    return PosixRetry([&] { return read(a_iEvent, achTaken, sizeof achTaken); }) > 0;
}

bool PlatEventReset(PlatHandle a_plathandle)
{
    const PosixKind posixkind = PosixKindOf(a_plathandle);
    if (posixkind == PosixKind::SocketEvent)
        return true;
    if (!IsEvent(posixkind))
        return PosixFail(PLAT_ERROR_INVALIDHANDLE);
    return PosixDrainEvent(PosixDescriptorOf(a_plathandle)) || errno == EAGAIN || PosixFailErrno();
}

// ------------------------------------------------------------------------------------------------------ the wait

namespace
{
constexpr int64_t g_i64NanosecondsPerSecond = 1'000'000'000;
constexpr int64_t g_i64NanosecondsPerMillisecond = 1'000'000;

int64_t MonotonicNanoseconds()
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<int64_t>(now.tv_sec) * g_i64NanosecondsPerSecond + now.tv_nsec;
}

// How much of a time-out is left. The clock is only asked when there is something to measure.
class Deadline
{
public:
    explicit Deadline(uint32_t a_u32Milliseconds) : m_u32Milliseconds(a_u32Milliseconds)
    {
        if (Measures())
            m_i64End = MonotonicNanoseconds() + a_u32Milliseconds * g_i64NanosecondsPerMillisecond;
    }

    // For ppoll: null waits without limit.
    const timespec* Left()
    {
        if (m_u32Milliseconds == PLAT_INFINITE)
            return nullptr;
        int64_t i64Left = 0;
        if (Measures())
        {
            i64Left =
                m_blStarted ? m_i64End - MonotonicNanoseconds() : m_u32Milliseconds * g_i64NanosecondsPerMillisecond;
            m_blStarted = true;
        }
        i64Left = i64Left < 0 ? 0 : i64Left;
        m_timespec = {i64Left / g_i64NanosecondsPerSecond, i64Left % g_i64NanosecondsPerSecond};
        return &m_timespec;
    }

private:
    bool Measures() const { return m_u32Milliseconds != 0 && m_u32Milliseconds != PLAT_INFINITE; }

    uint32_t m_u32Milliseconds;
    bool m_blStarted = false;
    int64_t m_i64End = 0;
    timespec m_timespec{};
};
}   // namespace

// The descriptor that can be read once the handle is ready; -1 for a kind that cannot be waited for.
static int WaitDescriptor(PlatHandle a_plathandle)
{
    switch (PosixKindOf(a_plathandle))
    {
    case PosixKind::EventAuto:
    case PosixKind::EventManual:
    case PosixKind::NamedEventAuto:
    case PosixKind::NamedEventManual:
    case PosixKind::Process:
    case PosixKind::Socket:
    case PosixKind::SocketEvent:
    case PosixKind::PipeRead:
    case PosixKind::Watch:
        return PosixDescriptorOf(a_plathandle);
    case PosixKind::Child:
        return PosixChildDescriptor(a_plathandle);
    default:
        return -1;
    }
}

static bool IsAutoEvent(PosixKind a_posixkind)
{
    return a_posixkind == PosixKind::EventAuto || a_posixkind == PosixKind::NamedEventAuto;
}

// Takes what a wait takes from a handle that is ready. False when another waiter was faster.
static bool Consume(PlatHandle a_plathandle)
{
    const PosixKind posixkind = PosixKindOf(a_plathandle);
    if (IsAutoEvent(posixkind) && !PosixDrainEvent(PosixDescriptorOf(a_plathandle)))
        return false;
    if (IsEvent(posixkind))
        static_cast<void>(OrderOf(a_plathandle).load(std::memory_order_acquire));
    return true;
}

// The first ready handle that could be consumed, PLAT_WAIT_TIMEOUT when there is none, PLAT_WAIT_FAILED when one is
// not open.
static uint32_t TakeReady(const PlatHandle* a_aplathandle, const pollfd* a_apollfd, uint32_t a_u32Count)
{
    for (uint32_t u32 = 0; u32 < a_u32Count; ++u32)
    {
        if (a_apollfd[u32].revents & POLLNVAL)
        {
            PlatSetLastError(PLAT_ERROR_INVALIDHANDLE);
            return PLAT_WAIT_FAILED;
        }
    }
    for (uint32_t u32 = 0; u32 < a_u32Count; ++u32)
    {
        if (a_apollfd[u32].revents && Consume(a_aplathandle[u32]))
            return u32;
    }
    return PLAT_WAIT_TIMEOUT;
}

uint32_t PlatWaitAny(const PlatHandle* a_aplathandle, uint32_t a_u32Count, uint32_t a_u32Milliseconds)
{
    if (!a_aplathandle || a_u32Count == 0 || a_u32Count > PLAT_WAIT_MAX)
    {
        PlatSetLastError(PLAT_ERROR_INVALIDPARAMETER);
        return PLAT_WAIT_FAILED;
    }
    pollfd apollfd[PLAT_WAIT_MAX];
    for (uint32_t u32 = 0; u32 < a_u32Count; ++u32)
    {
        apollfd[u32] = {WaitDescriptor(a_aplathandle[u32]), POLLIN, 0};
        if (apollfd[u32].fd < 0)
        {
            PlatSetLastError(PLAT_ERROR_INVALIDHANDLE);
            return PLAT_WAIT_FAILED;
        }
    }

    // One event alone can be taken without asking first.
    if (a_u32Count == 1 && IsAutoEvent(PosixKindOf(*a_aplathandle)))
    {
        if (Consume(*a_aplathandle))
            return 0;
        if (errno == EAGAIN && a_u32Milliseconds == 0)
            return PLAT_WAIT_TIMEOUT;
    }

    Deadline deadline(a_u32Milliseconds);
    for (;;)
    {
        const timespec* ptimespec = deadline.Left();
        const int iReady = ppoll(apollfd, a_u32Count, ptimespec, nullptr);
        if (iReady < 0 && errno != EINTR)
        {
            PosixFailErrno();
            return PLAT_WAIT_FAILED;
        }
        const uint32_t u32Taken = iReady > 0 ? TakeReady(a_aplathandle, apollfd, a_u32Count) : PLAT_WAIT_TIMEOUT;
        if (u32Taken != PLAT_WAIT_TIMEOUT)
            return u32Taken;
        const bool blOver = ptimespec && ptimespec->tv_sec == 0 && ptimespec->tv_nsec == 0;
        if (iReady == 0 || blOver)
            return PLAT_WAIT_TIMEOUT;
    }
}

void PlatSleep(uint32_t a_u32Milliseconds)
{
    if (a_u32Milliseconds == 0)
    {
        sched_yield();
        return;
    }
    const int64_t i64End = MonotonicNanoseconds() + a_u32Milliseconds * g_i64NanosecondsPerMillisecond;
    const timespec timespecEnd{i64End / g_i64NanosecondsPerSecond, i64End % g_i64NanosecondsPerSecond};
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &timespecEnd, nullptr) == EINTR)
    {
    }
}
