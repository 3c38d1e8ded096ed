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
inline constexpr uint32_t OS_SPAWNFLAGS_CHECKSTART = 0x80;     // set by Spawn: retry a child that dies early
inline constexpr uint32_t OS_SPAWNFLAGS_FROMSERVICE = 0x100;   // as the user of the active session
inline constexpr uint32_t OS_SPAWNFLAGS_NORETRY = 0x200;
inline constexpr uint32_t OS_SPAWNFLAGS_PIPES = 0x400;            // the three standard streams through pipes
inline constexpr uint32_t OS_SPAWNFLAGS_SERVICESESSION = 0x800;   // as the user of the services' session
inline constexpr uint32_t OS_SPAWNFLAGS_DETACHED = 0x1000;
inline constexpr uint32_t OS_SPAWNFLAGS_SHOWNORMAL = 0x2000;
inline constexpr uint32_t OS_SPAWNFLAGS_NOREDIRECTION = 0x4000;   // of files, for a program of the other word size
inline constexpr uint32_t OS_SPAWNFLAGS_CHECKFILE = 0x8000;       // the program file's footer, before the launch
inline constexpr uint32_t OS_SPAWNFLAGS_NOFOLDER = 0x10000;       // the child inherits the working directory
inline constexpr uint32_t OS_SPAWNFLAGS_OWNINPUT = 0x20000;       // with PIPES: this process's input, no pipe

// The thread procedure. Reads its argument with Argument(), loops on WaitForStop() with its own time-out until that
// returns EOSSTS_SUCCESS, and ends by calling Exit() or returning an exit value. An exception that leaves it is logged
// and ends the thread. Exit() unwinds the stack: a catch (...) in the procedure must rethrow.
using OsThreadProc = uint32_t (*)(COsThread* a_posthread);

// One owner destroys the object; everything else is thread-safe.
class COsThread
{
public:
    COsThread();
    // Stops the thread, with a time-out of 30000 ms. On the thread itself it returns at once. A thread that could not
    // be ended, or has destroyed its own object, must not use the object any more.
    ~COsThread();
    COsThread(const COsThread&) = delete;
    COsThread& operator=(const COsThread&) = delete;

    // Starts the thread and returns when it runs. EOSSTS_SUCCESS; EOSSTS_FAIL, also when it runs already;
    // EOSSTS_NOTOPEN for a null procedure. a_szName may be null. If a previous thread is just ending, waits for it, at
    // most 5000 ms.
    EOSSTS Start(const char* a_szName, OsThreadProc a_osthreadproc, void* a_pvArgument);

    // Asks the thread to stop and waits up to a_i32Timeout ms for its end. Then terminates it; locks and memory that it
    // held are not released. Termination is immediate, except for 100 ms if the thread is already ending, and takes up
    // to 500 ms. A thread that defers termination or blocks all signals is abandoned (logged). On the thread itself:
    // with a_blIgnoreSelf does nothing, otherwise the thread exits here unless it is already ending. Afterwards the
    // object can be started again.
    void Stop(bool a_blIgnoreSelf, int32_t a_i32Timeout);

    // Waits up to a_u32Timeout ms without requesting a stop. True when the thread has ended, never ran, or was
    // abandoned.
    bool WaitForEnd(uint32_t a_u32Timeout);

    // For the thread: EOSSTS_SUCCESS when a stop was requested (consumes the request), EOSSTS_TIMEOUT, EOSSTS_FAIL.
    EOSSTS WaitForStop(uint32_t a_u32Timeout);
    uint32_t StopState() const;   // 1 normal, 2 stop requested

    // Called on the thread itself to end it: removes its argument variables and ends it with exit value 0. Returns only
    // when called on another thread.
    void Exit();

    void* Argument() const;
    uint64_t Id() const;   // the system's thread id, 0 when it is not running or is ending

    // The handle of the child process, OS_INVALID if there is none, and its id. The object owns the handle and closes
    // it no earlier than at the start of the second child after it, because other threads may still be using it. A
    // child that is running when the object is destroyed keeps running.
    OSHANDLE ChildProcess() const;
    uint64_t ChildProcessId() const;
    uint32_t ChildExitCode() const;   // of the last child that has ended; OS_EXITCODEUNKNOWN if not known

    // Starts a child process. a_u32Flags: OS_SPAWNFLAGS_...; a_szArgument0 must not be null, but the command line has
    // the program in its place; at most 31 further arguments are used, up to the first null or empty one. A child that
    // dies within 90 ms is started again, ForceSpawnRetry times in all, unless OS_SPAWNFLAGS_NORETRY is set. The child
    // gets this process's environment with the published arguments document. Its standard streams are the pipes;
    // without pipes this process's streams, or empty ones when it does not share the console. EOSSTS_SUCCESS when it
    // runs; EOSSTS_FAIL, also while an earlier child still runs.
    EOSSTS Spawn(uint32_t a_u32Flags, const char* a_szProgram, const char* a_szArgument0,
                 std::initializer_list<const char*> a_aszArgument = {});

    // True while the child runs. When it has ended, stores its exit code and reaps it.
    bool ChildIsRunning();

    // Waits up to a_u32Timeout ms for output of the child and reads at most a_sizetBuffer bytes. By default from
    // standard output or standard error, whichever has data first; with a_blOutputOnly not from standard error.
    // EOSSTS_SUCCESS; EOSSTS_FAIL, also when there are no pipes; EOSSTS_TIMEOUT; EOSSTS_CANCELLED; EOSSTS_EXITED when
    // the child has ended and all its output was read; EOSSTS_NOSPACE when the pipe returned no data, also when the
    // child has closed it, which is reported within 100 ms. *a_pblError (may be null) is true for bytes from standard
    // error. One thread at a time.
    EOSSTS ChildRead(char* a_szBuffer, size_t a_sizetBuffer, size_t* a_psizetRead, bool a_blOutputOnly = false,
                     uint32_t a_u32Timeout = 3000, bool* a_pblError = nullptr);

    // Writes all bytes to the child's standard input and waits while the pipe is full. EOSSTS_FAIL, also when the child
    // has ended. One thread at a time.
    EOSSTS ChildWrite(const void* a_pvBuffer, size_t a_sizetBytes);

    void ChildCancel();   // ends the current read, or the next one; thread-safe

private:
    friend class COsThreadImpl;

    COsThreadImpl* m_posthreadimpl;   // null only when its allocation failed
};

// The affinity of all threads started from now on; 0: not set.
void OsThreadSetForcedAffinity(uint64_t a_u64Affinity);

// Sets the calling thread's ideal processor to a_u64Mask - 1, and its affinity mask. True when the mask was set.
bool OsThreadApplyAffinity(uint64_t a_u64Mask);
