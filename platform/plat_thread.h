// plat_thread.h: threads of this process.
//
// A thread ends by returning from its procedure or by PlatThreadExit. Ending it from outside is the last resort:
// what it held stays held.
#pragma once

#include "plat_types.h"

using PlatThreadProc = uint32_t (*)(void* a_pvArgument);

// Starts a thread that runs a_platthreadproc(a_pvArgument); the procedure's result is the exit code. Returns when the
// thread runs, so that it can be terminated from then on. *a_pu64Id (may be null) receives the system's id of the
// thread. The stack has the product's default size, 1 MiB.
PlatHandle PlatThreadBegin(PlatThreadProc a_platthreadproc, void* a_pvArgument, uint64_t* a_pu64Id);

// Ends the calling thread, which PlatThreadBegin started: its frames are unwound, then it ends with the code. A
// handler for every exception (catch (...)) on the way must throw on; what unwinds is no std::exception.
[[noreturn]] void PlatThreadExit(uint32_t a_u32ExitCode);

// The exit code, PLAT_STILLACTIVE while the thread runs.
bool PlatThreadExitCode(PlatHandle a_plathandle, uint32_t* a_pu32ExitCode);

// Ends the thread where it stands, without unwinding, and returns when it has ended. One that has ended already keeps
// its exit code. Not for the calling thread (87). False with PLAT_ERROR_TIMEDOUT when the thread still runs after
// PLAT_TERMINATEWAIT milliseconds, because it has put its end off or keeps all signals away: it ends when it can.
inline constexpr uint32_t PLAT_TERMINATEWAIT = 500;
bool PlatThreadTerminate(PlatHandle a_plathandle, uint32_t a_u32ExitCode);

// From a call with true to its counterpart with false, nobody terminates the calling thread, for others wait for what
// it holds: its end is put off until it leaves. The calls nest and cost a few nanoseconds, on any thread.
void PlatThreadDefer(bool a_blDefer);

class PlatThreadDeferral
{
public:
    PlatThreadDeferral() { PlatThreadDefer(true); }
    ~PlatThreadDeferral() { PlatThreadDefer(false); }
    PlatThreadDeferral(const PlatThreadDeferral&) = delete;
    PlatThreadDeferral& operator=(const PlatThreadDeferral&) = delete;
};

// A fork leaves a process that has the forking thread alone: the others' handles say that they have ended, with 0, and
// what they held stays held. Has a_platforkproc called there before anything else, in the order of these calls, in
// every fork from now on; it must not wait for what others may hold. A system without forks has nothing to do.
using PlatForkProc = void (*)();
void PlatThreadOnFork(PlatForkProc a_platforkproc);

uint64_t PlatThreadId();                          // of the calling thread, also in a fork of this process
bool PlatThreadIsAlive(uint64_t a_u64ThreadId);   // true while a thread of this process has the id

// Where the calling thread runs. Processors are bits of a mask, processor 0 is bit 0.
bool PlatThreadSetIdealProcessor(uint32_t a_u32Processor);   // false (87) when the machine has no such processor
bool PlatThreadSetAffinity(uint64_t a_u64Mask);
uint64_t PlatProcessAffinity();   // the process's mask, 0 when it cannot be read
