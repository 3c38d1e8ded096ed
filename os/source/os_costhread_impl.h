// os_costhread_impl.h: the thread object's insides, which its sources share.
#pragma once

#include "os_costhread.h"

#include "plat_types.h"

#include <atomic>
#include <initializer_list>
#include <string>

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

// What ends the wait of a read.
enum EOSCHILDWAIT : uint32_t
{
    OS_CHILDWAIT_CANCEL,
    OS_CHILDWAIT_OUTPUT,
    OS_CHILDWAIT_ERROR,
    OS_CHILDWAIT_ENDED,
    OS_CHILDWAIT_TIMEOUT,
    OS_CHILDWAIT_FAILED,
};

// What a caller of Spawn asks for.
struct OsSpawnRequest
{
    uint32_t u32Flags;
    const char* szProgram;
    const char* szArgument0;
    std::initializer_list<const char*> aszArgument;
};

// What every try of a spawn starts the child with.
struct OsSpawn
{
    uint32_t u32Flags = 0;
    const char* szProgram = nullptr;
    std::u16string wstrProgram;
    std::u16string wstrCommandLine;
    std::u16string wstrFolder;    // empty: this process's
    std::u16string wstrDesktop;   // it and the attributes are for the product's system; here they are logged
    uint32_t u32Attributes = 0;
};

// Fills what the flags and the program decide. False, and logged, when something does not fit.
bool OsSpawnPrepare(const OsSpawnRequest& a_osspawnrequest, OsSpawn* a_posspawn);

// Logs what is started and starts it; the streams are in PlatStandard order, PLAT_INVALID without pipes. PLAT_INVALID,
// and logged, on failure.
PlatHandle OsSpawnLaunch(const OsSpawn& a_osspawn, const PlatHandle (&a_aplathandleStream)[3],
                         uint64_t* a_pu64ProcessId);

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

    PlatHandle ChildProcess() const { return m_plathandleChild; }
    uint64_t ChildProcessId() const { return m_u64ChildId; }
    uint32_t ChildExitCode() const { return m_u32ChildExitCode; }

    EOSSTS Spawn(const OsSpawnRequest& a_osspawnrequest);
    bool ChildIsRunning();
    EOSSTS ChildRead(char* a_szBuffer, size_t a_sizetBuffer, size_t* a_psizetRead, bool a_blOutputOnly,
                     uint32_t a_u32Timeout);
    EOSSTS ChildWrite(const void* a_pvBuffer, size_t a_sizetBytes);
    void ChildCancel();

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

    EOSSTS SpawnUntilItLives(const OsSpawn& a_osspawn, long a_lTries);
    PlatHandle LaunchChild(const OsSpawn& a_osspawn, uint64_t* a_pu64ProcessId);
    bool CreatePipes(PlatHandle (&a_aplathandleTheirs)[3]);
    void ClosePipes();
    void ChildProcessSet(PlatHandle a_plathandle, uint64_t a_u64ProcessId);
    void ForgetChild();
    EOSCHILDWAIT WaitForChild(PlatHandle a_plathandleChild, bool a_blOutputOnly, uint64_t a_u64Milliseconds);
    EOSSTS ReadStream(PlatHandle& a_plathandle, char* a_szBuffer, size_t a_sizetBuffer, size_t* a_psizetRead);
    bool HasFallenSilent(bool a_blOutputOnly) const;

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
    std::atomic<PlatHandle> m_plathandleFormerChild{PLAT_INVALID};   // has been let go; others may still be asking it
    std::atomic<uint64_t> m_u64ChildId{0};
    std::atomic<uint32_t> m_u32ChildExitCode{0};
    bool m_blPipes = false;                                                         // the child was started with pipes
    PlatHandle m_aplathandlePipe[3] = {PLAT_INVALID, PLAT_INVALID, PLAT_INVALID};   // our ends, in PlatStandard order
    std::atomic<PlatHandle> m_plathandleCancel{PLAT_INVALID};
};
