// os_costhread_impl.h: the thread object's insides, which its sources share.
#pragma once

#include "os_costhread.h"

#include "plat_types.h"

#include <atomic>

inline constexpr uint32_t OS_THREADSLICE = 10;   // milliseconds from one look to the next

enum EOSTHREADSTATUS : uint32_t
{
    OS_THREADSTATUS_STARTED = 1,
    OS_THREADSTATUS_STOPPED = 3,
};

enum EOSTHREADSTOP : uint32_t
{
    OS_THREADSTOP_NONE = 1,
    OS_THREADSTOP_REQUESTED = 2,
};

// Whether the procedure is called: the thread confirms, or the starter gives up, whoever comes first.
enum EOSTHREADSTART : uint32_t
{
    OS_THREADSTART_PENDING = 0,
    OS_THREADSTART_CONFIRMED = 1,
    OS_THREADSTART_GIVENUP = 2,
};

class COsThreadImpl
{
public:
    explicit COsThreadImpl(COsThread* a_posthread) : m_posthread(a_posthread) {}
    ~COsThreadImpl();
    COsThreadImpl(const COsThreadImpl&) = delete;
    COsThreadImpl& operator=(const COsThreadImpl&) = delete;

    EOSSTS Start(const char* a_szName, OsThreadProc a_osthreadproc, void* a_pvArgument);
    void Stop(bool a_blIgnoreSelf, int32_t a_i32Timeout);
    bool WaitForEnd(uint32_t a_u32Timeout);
    EOSSTS WaitForStop(uint32_t a_u32Timeout);
    void Exit();

    uint32_t StopState() const { return m_u32StopState; }
    void* Argument() const { return m_pvArgument; }
    uint64_t Id() const { return m_u64Id; }

    void ChildProcessSet(PlatHandle a_plathandle, uint64_t a_u64ProcessId);
    PlatHandle ChildProcess() const { return m_plathandleChild; }
    uint64_t ChildProcessId() const { return m_u64ChildId; }
    void ChildProcessEnded(uint32_t a_u32ExitCode);
    uint32_t ChildExitCode() const { return m_u32ChildExitCode; }

private:
    EOSSTS Launch(const char* a_szDisplayName, OsThreadProc a_osthreadproc, void* a_pvArgument);
    bool PrepareEvents();
    bool Begin();
    EOSSTS Confirm();
    bool GiveUp();
    void AbandonStart();

    static uint32_t Trampoline(void* a_pvArg);
    static uint32_t Enter(COsThread* a_posthread);
    uint32_t CallProcedure();

    bool IsSelf() const;
    bool HasEnded() const;
    void StopSelf(bool a_blIgnoreSelf);
    void StopOther(int32_t a_i32Timeout);
    bool LockUnlessBeingStopped();
    void AskToEnd(int32_t a_i32Timeout);
    void Clear();
    void CloseThread();

    [[noreturn]] static void Leave();

    static void CloseAndForget(PlatHandle& a_plathandle);

    // The object whose procedure runs on this thread; null also when that object was destroyed by it.
    inline static thread_local COsThreadImpl* t_posthreadimpl = nullptr;

    // This thread is on its way out: what passes is no crash.
    inline static thread_local bool t_blLeaving = false;

    COsThread* m_posthread;
    std::atomic<void*> m_pvArgument{nullptr};
    OsThreadProc m_osthreadproc = nullptr;
    std::atomic<uint32_t> m_u32Status{OS_THREADSTATUS_STOPPED};
    std::atomic<uint32_t> m_u32StopState{OS_THREADSTOP_NONE};
    char m_szDisplayName[512]{};
    uint64_t m_u64StopLock = 0;   // a spin lock, held for as long as a stop takes
    std::atomic<bool> m_blRunning{false};
    std::atomic<uint32_t> m_u32Start{OS_THREADSTART_PENDING};
    std::atomic<uint64_t> m_u64Id{0};
    PlatHandle m_plathandleThread = PLAT_INVALID;
    PlatHandle m_plathandleStop = PLAT_INVALID;
    PlatHandle m_plathandleStarted = PLAT_INVALID;   // signalled right before the procedure is called
    PlatHandle m_plathandleEnded = PLAT_INVALID;     // signalled by the thread's last step here
    std::atomic<PlatHandle> m_plathandleChild{PLAT_INVALID};
    std::atomic<uint64_t> m_u64ChildId{0};
    std::atomic<uint32_t> m_u32ChildExitCode{0};
};
