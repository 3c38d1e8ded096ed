// os_costhread.h: named threads with a stop event.
#pragma once

#include "os_types.h"

#include <initializer_list>

class COsThread;
class COsThreadImpl;

inline constexpr uint32_t OS_EXITCODEUNKNOWN = 0xFFFFFFFFu;

// How a child is started; bits may be combined.
inline constexpr uint32_t OS_SPAWNFLAGS_NOWINDOW = 0x1;
inline constexpr uint32_t OS_SPAWNFLAGS_NEWCONSOLE = 0x4;
inline constexpr uint32_t OS_SPAWNFLAGS_NODESKTOP = 0x10;
inline constexpr uint32_t OS_SPAWNFLAGS_NOQUOTES = 0x40;       // around the arguments
inline constexpr uint32_t OS_SPAWNFLAGS_CHECKSTART = 0x80;     // set by Spawn: early deaths are seen and tried again
inline constexpr uint32_t OS_SPAWNFLAGS_FROMSERVICE = 0x100;   // as the user of the active session
inline constexpr uint32_t OS_SPAWNFLAGS_NORETRY = 0x200;
inline constexpr uint32_t OS_SPAWNFLAGS_PIPES = 0x400;            // the three standard streams through pipes
inline constexpr uint32_t OS_SPAWNFLAGS_SERVICESESSION = 0x800;   // as the user of the services' session
inline constexpr uint32_t OS_SPAWNFLAGS_DETACHED = 0x1000;
inline constexpr uint32_t OS_SPAWNFLAGS_SHOWNORMAL = 0x2000;
inline constexpr uint32_t OS_SPAWNFLAGS_NOREDIRECTION = 0x4000;   // of files, for a program of the other word size
inline constexpr uint32_t OS_SPAWNFLAGS_CHECKFILE = 0x8000;       // the program file's footer, before the launch
inline constexpr uint32_t OS_SPAWNFLAGS_NOFOLDER = 0x10000;       // the child starts in this process's folder
inline constexpr uint32_t OS_SPAWNFLAGS_OWNINPUT = 0x20000;       // beside PIPES: our own standard input, no pipe

// Takes its argument with Argument(), loops on WaitForStop() with its own time-out, leaves on EOSSTS_SUCCESS, and
// ends by calling Exit() or by returning an exit value. An exception that leaves it is logged and ends the thread.
// Exit() unwinds the procedure: a handler for every exception (catch (...)) in it must throw on.
using OsThreadProc = uint32_t (*)(COsThread* a_posthread);

// One owner destroys the object; everything else may be called from several threads at once.
class COsThread
{
public:
    COsThread();
    // Stops the thread, with a time-out of 30000 ms. On the thread itself it returns at once. A thread that could not
    // be ended, and one that has destroyed its own object, must not touch the object any more.
    ~COsThread();
    COsThread(const COsThread&) = delete;
    COsThread& operator=(const COsThread&) = delete;

    // Starts the thread and returns when it runs. EOSSTS_SUCCESS; EOSSTS_FAIL, also when it runs already;
    // EOSSTS_NOTOPEN for a null procedure. a_szName may be null. The last steps of a thread that is leaving are waited
    // for, 5000 ms at most.
    EOSSTS Start(const char* a_szName, OsThreadProc a_osthreadproc, void* a_pvArgument);

    // Asks the thread to stop and waits up to a_i32Timeout ms for its end. Then it is terminated where it stands, and
    // what it held stays held: at once, but for 100 ms when it is leaving already, and 500 ms for its end. A thread
    // that puts its end off or keeps all signals away is left behind, with a line in the log. Called by the thread
    // itself: with a_blIgnoreSelf does nothing, without it the thread exits here, unless it is leaving already.
    // Afterwards the object can be started again.
    void Stop(bool a_blIgnoreSelf, int32_t a_i32Timeout);

    // Waits up to a_u32Timeout ms without asking. True when the thread has ended or never ran, or was left behind.
    bool WaitForEnd(uint32_t a_u32Timeout);

    // For the thread: EOSSTS_SUCCESS when it is asked to stop (the request is taken), EOSSTS_TIMEOUT, EOSSTS_FAIL.
    EOSSTS WaitForStop(uint32_t a_u32Timeout);
    uint32_t StopState() const;   // 1 normal, 2 a stop was asked for

    // Called by the thread itself at its end: the thread's argument variables go, and it ends with the exit value 0.
    // Returns only when somebody else calls it.
    void Exit();

    void* Argument() const;
    uint64_t Id() const;   // the system's id of the thread, 0 when it is not running or leaving

    // The child process that this object carries, OS_INVALID for none, and its id. The object closes the handle, at
    // the earliest when the child that followed it is followed by another: a thread that still has it may still ask it.
    // A child that runs when the object goes runs on.
    OSHANDLE ChildProcess() const;
    uint64_t ChildProcessId() const;
    uint32_t ChildExitCode() const;   // of the last one that has ended; OS_EXITCODEUNKNOWN when nobody knows

    // Starts a child process. a_u32Flags: OS_SPAWNFLAGS_...; a_szArgument0 must not be null and is not on the command
    // line, where the program stands in its place; of the further arguments at most 31 are taken, up to the first null
    // or empty one. A child that dies within 90 ms is started again, ForceSpawnRetry times in all, unless
    // OS_SPAWNFLAGS_NORETRY says not to look. The child gets the published arguments document with our environment, and
    // as its standard streams our pipes; without pipes our own streams, or empty ones when it does not share our
    // console. EOSSTS_SUCCESS when it runs; EOSSTS_FAIL, also while an earlier child still runs.
    EOSSTS Spawn(uint32_t a_u32Flags, const char* a_szProgram, const char* a_szArgument0,
                 std::initializer_list<const char*> a_aszArgument = {});

    // True while the child runs. Once it has ended, its exit code is noted and the process let go.
    bool ChildIsRunning();

    // Waits up to a_u32Timeout ms for what the child writes and takes at most a_sizetBuffer bytes of it. By default
    // from its standard output or its standard error, whichever comes first; a_blOutputOnly leaves the latter for
    // another read. EOSSTS_SUCCESS; EOSSTS_FAIL, also when there are no pipes; EOSSTS_TIMEOUT; EOSSTS_CANCELLED;
    // EOSSTS_EXITED when the child has gone and all that it wrote was read; EOSSTS_NOSPACE when the pipe gave nothing,
    // also when the child has closed it, which is told within 100 ms. *a_pblError (may be null) tells whether the bytes
    // come from the standard error. One thread at a time.
    EOSSTS ChildRead(char* a_szBuffer, size_t a_sizetBuffer, size_t* a_psizetRead, bool a_blOutputOnly = false,
                     uint32_t a_u32Timeout = 3000, bool* a_pblError = nullptr);

    // Writes all of it to the child's standard input, and waits for the child to make room. EOSSTS_FAIL, also when it
    // has gone. One thread at a time.
    EOSSTS ChildWrite(const void* a_pvBuffer, size_t a_sizetBytes);

    void ChildCancel();   // ends the read that waits, else the next one; from any thread

private:
    friend class COsThreadImpl;

    COsThreadImpl* m_posthreadimpl;   // null only when its allocation failed
};

// The affinity of every thread that starts from now on; 0 for none.
void OsThreadSetForcedAffinity(uint64_t a_u64Affinity);

// Gives the calling thread the ideal processor a_u64Mask - 1 and the mask. True when the mask was set.
bool OsThreadApplyAffinity(uint64_t a_u64Mask);
