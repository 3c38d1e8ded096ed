// plat_types.h: what every header of the platform layer shares: the handle, the time-outs, the last error.
//
// The layer names the operating system so that nothing above it has to. It is thin and decides nothing: it never
// logs, reads no configuration and never calls upward. A function does one thing that the system does.
//
// - Text crosses the layer as UTF-16. Sizes of text are in char16_t units and include the terminator; sizes of
//   data are in bytes; times are in milliseconds unless a name says otherwise.
// - A call that can fail returns false, a null pointer or PLAT_INVALID and sets the calling thread's last error to
//   one of the numbers below. A call that succeeds leaves the last error alone unless its comment says otherwise.
// - No call throws: one that finds no memory fails with PLAT_ERROR_NOMEMORY.
// - Every function may be called from any thread. A handle may be used by several threads at once, but it must not
//   be closed while another thread uses it.
#pragma once

#include <cstddef>
#include <cstdint>

// Owned by whoever made it and released with PlatClose. All bits set is no handle.
using PlatHandle = uint64_t;

inline constexpr PlatHandle PLAT_INVALID = ~PlatHandle{0};
inline constexpr uint32_t PLAT_INFINITE = 0xFFFFFFFFu;   // a time-out without limit
inline constexpr uint32_t PLAT_STILLACTIVE = 259;        // exit code of a thread or process that has not ended
inline constexpr size_t PLAT_PATHMAX = 1024;             // room for any path that the layer returns

// The numbers that the messages of the system print.
inline constexpr uint32_t PLAT_ERROR_NONE = 0;
inline constexpr uint32_t PLAT_ERROR_INVALIDFUNCTION = 1;
inline constexpr uint32_t PLAT_ERROR_FILENOTFOUND = 2;
inline constexpr uint32_t PLAT_ERROR_PATHNOTFOUND = 3;
inline constexpr uint32_t PLAT_ERROR_TOOMANYOPEN = 4;
inline constexpr uint32_t PLAT_ERROR_ACCESSDENIED = 5;
inline constexpr uint32_t PLAT_ERROR_INVALIDHANDLE = 6;
inline constexpr uint32_t PLAT_ERROR_NOMEMORY = 8;
inline constexpr uint32_t PLAT_ERROR_NOTSAMEDEVICE = 17;
inline constexpr uint32_t PLAT_ERROR_NOMOREFILES = 18;
inline constexpr uint32_t PLAT_ERROR_WRITEPROTECT = 19;
inline constexpr uint32_t PLAT_ERROR_GENFAILURE = 31;
inline constexpr uint32_t PLAT_ERROR_SHARING = 32;
inline constexpr uint32_t PLAT_ERROR_LOCK = 33;
inline constexpr uint32_t PLAT_ERROR_FILEEXISTS = 80;
inline constexpr uint32_t PLAT_ERROR_CANNOTMAKE = 82;
inline constexpr uint32_t PLAT_ERROR_INVALIDPARAMETER = 87;
inline constexpr uint32_t PLAT_ERROR_BROKENPIPE = 109;
inline constexpr uint32_t PLAT_ERROR_DISKFULL = 112;
inline constexpr uint32_t PLAT_ERROR_INSUFFICIENTBUFFER = 122;
inline constexpr uint32_t PLAT_ERROR_INVALIDNAME = 123;
inline constexpr uint32_t PLAT_ERROR_DIRNOTEMPTY = 145;
inline constexpr uint32_t PLAT_ERROR_ALREADYEXISTS = 183;
inline constexpr uint32_t PLAT_ERROR_BADEXEFORMAT = 193;
inline constexpr uint32_t PLAT_ERROR_ENVVARNOTFOUND = 203;
inline constexpr uint32_t PLAT_ERROR_DIRECTORY = 267;
inline constexpr uint32_t PLAT_ERROR_NOTOKEN = 1008;     // nobody to act for
inline constexpr uint32_t PLAT_ERROR_NOUNICODE = 1113;   // text that is no UTF-8 or no UTF-16
inline constexpr uint32_t PLAT_ERROR_PRIVILEGENOTHELD = 1314;
inline constexpr uint32_t PLAT_ERROR_TOOMANYSOCKETS = 10024;
inline constexpr uint32_t PLAT_ERROR_WOULDBLOCK = 10035;
inline constexpr uint32_t PLAT_ERROR_NOTSOCKET = 10038;
inline constexpr uint32_t PLAT_ERROR_ADDRINUSE = 10048;
inline constexpr uint32_t PLAT_ERROR_ADDRNOTAVAIL = 10049;
inline constexpr uint32_t PLAT_ERROR_NETUNREACH = 10051;
inline constexpr uint32_t PLAT_ERROR_CONNABORTED = 10053;
inline constexpr uint32_t PLAT_ERROR_CONNRESET = 10054;
inline constexpr uint32_t PLAT_ERROR_NOBUFFERS = 10055;
inline constexpr uint32_t PLAT_ERROR_NOTCONN = 10057;
inline constexpr uint32_t PLAT_ERROR_TIMEDOUT = 10060;
inline constexpr uint32_t PLAT_ERROR_CONNREFUSED = 10061;
inline constexpr uint32_t PLAT_ERROR_HOSTNOTFOUND = 11001;

// The calling thread's last error: the layer's own, never the C library's.
uint32_t PlatGetLastError();
void PlatSetLastError(uint32_t a_u32Error);

// Releases any handle of the layer: event, thread, process, user, pipe, file, mapping, search, socket, socket event
// or watch. A thread or process goes on running. Byte locks of a file end with its handle. Returns false, and sets 6,
// for PLAT_INVALID and for what is no open handle.
bool PlatClose(PlatHandle a_plathandle);
