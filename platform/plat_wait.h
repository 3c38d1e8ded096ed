// plat_wait.h: events, and the one wait of the system.
#pragma once

#include "plat_types.h"

enum PlatReset : uint32_t
{
    PLAT_RESET_AUTO = 0,     // the wait that returns the event makes it not signalled
    PLAT_RESET_MANUAL = 1,   // stays signalled until PlatEventReset
};

inline constexpr uint32_t PLAT_WAIT_MAX = 64;
inline constexpr uint32_t PLAT_WAIT_TIMEOUT = 258;
inline constexpr uint32_t PLAT_WAIT_FAILED = 0xFFFFFFFFu;

// Makes an event, not signalled. a_wszName null makes an unnamed one, for this process alone. A named event that
// exists already is opened instead, and the last error is then PLAT_ERROR_ALREADYEXISTS; it is 0 otherwise. Every
// user of the machine may open a named event, and all give it the same reset. The name lives as long as its last
// handle, in whichever process that is, also when a process was killed. Returns PLAT_INVALID on failure.
PlatHandle PlatEventCreate(PlatReset a_platreset, const char16_t* a_wszName);

// Signals the event, or takes the signal back. Setting a signalled event changes nothing.
bool PlatEventSet(PlatHandle a_plathandle);
bool PlatEventReset(PlatHandle a_plathandle);

// Waits until one of a_u32Count handles (1 to PLAT_WAIT_MAX) is ready or a_u32Milliseconds have gone
// (PLAT_INFINITE: no limit; 0: only looks). Ready are: an event that is signalled, a process that has ended, a
// socket with bytes or a connection to take or whose peer has gone, a socket event with something to report
// (plat_socket.h), a pipe that can be read or whose writers have gone, a watch with a change to report. The lowest
// ready index wins. Only the handle returned is consumed, and only an auto-reset event is: when another waiter took it
// first, the wait goes on with the time that remains. Returns the index, PLAT_WAIT_TIMEOUT or PLAT_WAIT_FAILED (with
// the last error: 6 when a handle is not open or of a kind that cannot be waited for).
uint32_t PlatWaitAny(const PlatHandle* a_aplathandle, uint32_t a_u32Count, uint32_t a_u32Milliseconds);

// Sleeps at least so many milliseconds; 0 gives the processor to another thread that is ready.
void PlatSleep(uint32_t a_u32Milliseconds);
