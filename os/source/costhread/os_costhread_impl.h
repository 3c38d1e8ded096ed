// os_costhread_impl.h: the internals of the thread object, shared by its sources.
#pragma once

#include "os_costhread.h"

#include "plat_types.h"

#include <atomic>
#include <initializer_list>
#include <memory>
#include <mutex>
#include <string>

inline constexpr uint32_t OS_THREADSLICE = 10;            // milliseconds between two stop requests
inline constexpr uint32_t OS_THREADSTARTTIMEOUT = 5000;   // milliseconds

enum EOSTHREADSTATE : uint32_t
{
    OS_THREADSTATE_STARTING = 0,   // the procedure has not been called, and will not be if the starter gives up
    OS_THREADSTATE_RUNNING = 1,
    OS_THREADSTATE_LEAVING = 2,   // Exit() was called, or the procedure has returned or will not be called
    OS_THREADSTATE_ENDED = 3,     // the system reports that the thread has ended
};

enum EOSTHREADSTOP : uint32_t
{
    OS_THREADSTOP_NONE = 1,
    OS_THREADSTOP_REQUESTED = 2,
};

// What ended the wait of a read.
enum EOSCHILDWAIT : uint32_t
{
    OS_CHILDWAIT_CANCEL,
    OS_CHILDWAIT_OUTPUT,
    OS_CHILDWAIT_ERROR,
    OS_CHILDWAIT_ENDED,
    OS_CHILDWAIT_TIMEOUT,
    OS_CHILDWAIT_FAILED,
};

// The arguments of Spawn.
struct OsSpawnRequest
{
    uint32_t u32Flags;
    const char* szProgram;
    const char* szArgument0;
    std::initializer_list<const char*> aszArgument;
};

// The start parameters of the child, the same for every try.
struct OsSpawn
{
    uint32_t u32Flags = 0;
    const char* szProgram = nullptr;
    std::u16string wstrProgram;
    std::u16string wstrCommandLine;
    std::u16string wstrFolder;    // empty: this process's
    std::u16string wstrDesktop;   // for the product's system, like the attributes; only logged here
    uint32_t u32Attributes = 0;
};

// Fills in everything that depends on the flags and the program. False, and logged, when something does not fit.
bool OsSpawnPrepare(const OsSpawnRequest& a_osspawnrequest, OsSpawn* a_posspawn);

// Logs the parameters and starts the child; the streams are in PlatStandard order, PLAT_INVALID without pipes.
// PLAT_INVALID, and logged, on failure.
PlatHandle OsSpawnLaunch(const OsSpawn& a_osspawn, const PlatHandle (&a_aplathandleStream)[3],
                         uint64_t* a_pu64ProcessId);

// A handle, closed by its owner's destructor.
class OsHandle
{
public:
    explicit OsHandle(PlatHandle a_plathandle = PLAT_INVALID) : m_plathandle(a_plathandle) {}
    ~OsHandle() { Close(); }
    OsHandle(const OsHandle&) = delete;
    OsHandle& operator=(const OsHandle&) = delete;

    PlatHandle Get() const { return m_plathandle; }
    PlatHandle& Fill() { return m_plathandle; }   // only when closed
    void Close();

private:
    PlatHandle m_plathandle;
};

// The state of one start of a thread, shared by its object, current callers and the thread itself. The last release
// closes its handles. There is no lock; the thread never waits.
class OsThreadRun
{
public:
    OsThreadRun(COsThread* a_posthread, const COsThreadImpl* a_posthreadimpl, const char* a_szDisplayName,
                OsThreadProc a_osthreadproc, void* a_pvArgument);
    ~OsThreadRun();
    OsThreadRun(const OsThreadRun&) = delete;
    OsThreadRun& operator=(const OsThreadRun&) = delete;

    // For the starter.
    bool CreateEvents();
    bool Begin(const std::shared_ptr<OsThreadRun>& a_sharedptrSelf);
    EOSSTS AwaitStart();   // EOSSTS_TIMEOUT: the procedure will not be called; EOSSTS_FAIL: nor was it
    bool GiveUp();         // false when the procedure is already being called

    // For any thread. Stop requests the stop, waits and then terminates; it returns soon after the timeout, whatever
    // the thread does.
    bool HasEnded();
    bool WaitForEnd(uint32_t a_u32Timeout);
    void Stop(int32_t a_i32Timeout);
    EOSSTS WaitForStop(uint32_t a_u32Timeout) const;

    // For the thread. StopSelf returns if the thread is already leaving or a_blIgnoreSelf is set.
    void StopSelf(bool a_blIgnoreSelf);
    [[noreturn]] void Exit();
    void Orphan() { m_posthreadimpl = nullptr; }   // the object is being deleted

    // The calling thread's own start, if it belongs to that object.
    static OsThreadRun* Own(const COsThreadImpl* a_posthreadimpl);
    std::shared_ptr<OsThreadRun> Self() const { return m_sharedptrSelf; }

    bool IsLeaving() const { return m_u32State >= OS_THREADSTATE_LEAVING; }
    uint32_t StopState() const { return m_u32StopState; }
    uint64_t Id() const { return IsLeaving() ? 0 : m_u64Id.load(); }
    void* Argument() const { return m_pvArgument; }
    const char* DisplayName() const { return m_szDisplayName; }
    PlatHandle Handle() const { return m_plathandleThread; }

private:
    static uint32_t Trampoline(void* a_pvRun);
    static uint32_t Enter(OsThreadRun* a_posthreadrun);
    uint32_t CallProcedure();

    bool IsSelf() const { return t_posthreadrun == this; }
    void TellStopping();
    void Terminate();
    bool TerminateThread();
    void LetGo();
    [[noreturn]] static void Leave();

    inline static thread_local OsThreadRun* t_posthreadrun = nullptr;   // the start whose procedure runs on this thread
    inline static thread_local bool t_blLeaving = false;   // an exception passing now is the thread's exit, not a crash

    COsThread* const m_posthread;
    const COsThreadImpl* m_posthreadimpl;   // used by the thread alone
    const OsThreadProc m_osthreadproc;
    void* const m_pvArgument;
    char m_szDisplayName[512];

    std::atomic<uint32_t> m_u32State{OS_THREADSTATE_STARTING};
    std::atomic<uint32_t> m_u32StopState{OS_THREADSTOP_NONE};
    std::atomic<bool> m_blTerminating{false};   // set by the first stopper whose timeout has passed
    std::atomic<uint64_t> m_u64Id{0};

    std::atomic<PlatHandle> m_plathandleThread{PLAT_INVALID};   // set when other threads may already use the run
    OsHandle m_oshandleStop;
    OsHandle m_oshandleStarted;   // signalled right before the procedure is called
    OsHandle m_oshandleEnded;     // signalled by the thread's last step here

    std::atomic<bool> m_blLetGo{false};
    std::shared_ptr<OsThreadRun> m_sharedptrSelf;   // the thread's reference
};

// One child process, shared by its object and current callers.
struct OsChild
{
    std::shared_ptr<OsHandle> sharedptrProcess;
    uint64_t u64ProcessId = 0;
    bool blPipes = false;
    OsHandle aoshandlePipe[3];   // our ends, in PlatStandard order
    OsHandle oshandleCancel;
    bool blEnded = false;   // and stored; guarded by the object's lock
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

    uint32_t StopState() const;
    void* Argument() const;
    uint64_t Id() const;

    PlatHandle ChildProcess() const;
    uint64_t ChildProcessId() const;
    uint32_t ChildExitCode() const { return m_u32ChildExitCode; }

    EOSSTS Spawn(const OsSpawnRequest& a_osspawnrequest);
    bool ChildIsRunning();
    EOSSTS ChildRead(char* a_szBuffer, size_t a_sizetBuffer, size_t* a_psizetRead, bool a_blOutputOnly,
                     uint32_t a_u32Timeout, bool* a_pblError);
    EOSSTS ChildWrite(const void* a_pvBuffer, size_t a_sizetBytes);
    void ChildCancel();

private:
    using Run = std::shared_ptr<OsThreadRun>;
    using Child = std::shared_ptr<OsChild>;

    Run CurrentRun() const;   // may be null
    bool IsBusy() const;
    bool Claim(const Run& a_run);
    EOSSTS Launch(const Run& a_run);
    EOSSTS Confirm(const Run& a_run);
    void AbandonStart(const Run& a_run);
    void Forget(const Run& a_run);

    Child LastChild() const;   // may be null
    Child RunningChild() const;
    EOSSTS SpawnUntilItLives(const OsSpawn& a_osspawn, long a_lTries);
    EOSSTS SpawnAlone(const OsSpawnRequest& a_osspawnrequest);
    void TakeChild(Child a_child);
    void NoteEnd(OsChild* a_poschild, uint32_t a_u32ExitCode);

    COsThread* const m_posthread;
    mutable std::mutex m_mutex;   // guards the references below while they are copied
    Run m_run;
    Child m_child;                                        // kept after its end: its pipes may hold more
    std::shared_ptr<OsHandle> m_sharedptrFormerProcess;   // a caller may still use it
    std::atomic<uint32_t> m_u32ChildExitCode{0};
    std::atomic<bool> m_blSpawning{false};
};
