// os_types.h: the status of nearly every operation, and the sizes that all of the library shares.
#pragma once

#include <cstddef>
#include <cstdint>

// For functions that format like printf: the positions of the format and of the first value, counted from 1, so that
// the compiler checks the values against the format.
#if defined(__GNUC__)
#define OS_PRINTFLIKE(format_, first_) __attribute__((format(printf, format_, first_)))
#else
#define OS_PRINTFLIKE(format_, first_)
#endif

enum EOSSTS : uint32_t
{
    EOSSTS_SUCCESS = 0,
    EOSSTS_FAIL = 1,             // general failure
    EOSSTS_NOMEMORY = 2,         // a buffer is too small or an allocation failed
    EOSSTS_NOTOPEN = 3,          // bad argument, or the object is not created or opened
    EOSSTS_BUSY = 4,             // a lock or shared object is in use; retry
    EOSSTS_TIMEOUT = 5,          // a wait timed out
    EOSSTS_DISCONNECTED = 7,     // the connection is gone
    EOSSTS_CANCELLED = 8,        // a wait was ended by a cancel event
    EOSSTS_LOCKED = 9,           // this process holds the lock of a shared mapping
    EOSSTS_NOTLOCKED = 10,       // this process does not hold it
    EOSSTS_EXITED = 13,          // a watched process or thread has ended, or a required object is missing
    EOSSTS_NOSPACE = 14,         // nothing to read, no room to write, nothing found to replace
    EOSSTS_NOTFOUND = 257,       // a named object or file does not exist
    EOSSTS_ACCESSDENIED = 258,   // access denied or refused
    EOSSTS_CANNOTCREATE = 259,   // the object cannot be made
    EOSSTS_SHARING = 260,        // sharing violation, or a folder that cannot be removed
    EOSSTS_EXISTS = 261,         // the object already exists
};

// Text is 8-bit and UTF-8 where it is a path or a name. Buffer sizes are in bytes and include the terminator.
inline constexpr size_t OS_PATHSIZE = 512;
inline constexpr uint32_t OS_INFINITE = 0xFFFFFFFFu;   // milliseconds without limit

// A system handle exposed by the library, which keeps ownership. OS_INVALID is no handle.
using OSHANDLE = uint64_t;
inline constexpr OSHANDLE OS_INVALID = ~OSHANDLE{0};

// The role of a log collector object.
enum CollectorMode : uint32_t
{
    OS_COLLECTORMODE_SHAREDCLIENT = 1,
    OS_COLLECTORMODE_SHARED = 2,
    OS_COLLECTORMODE_PRIVATECLIENT = 3,
    OS_COLLECTORMODE_PRIVATE = 4,
};
