// os_cosmem.h: the tracked memory manager, shared memory, and the encodings.
//
// One process-wide manager counts and records every block. While there is none (before the library starts, after it
// stops) the tracked operations fail.
#pragma once

#include "os_types.h"

enum EOSMEMTYPE : uint32_t
{
    OS_MEMTYPE_UNDEFINED = 0,
    OS_MEMTYPE_MALLOC = 1,
    OS_MEMTYPE_GLOBALALLOC = 2,
    OS_MEMTYPE_VIRTUAL = 3,
    OS_MEMTYPE_MEMORYMAP = 4,
    OS_MEMTYPE_EXTERNAL = 5,
    OS_MEMTYPE_DSM = 6,
    OS_MEMTYPE_LAST = 7,
};

// Allocation flags; the low 16 bits are also the level of the block's trace line.
inline constexpr uint32_t OS_MEMFLAG_BLOCK = 0x100;        // an ordinary block
inline constexpr uint32_t OS_MEMFLAG_PAGES = 0x1100;       // whole pages, touched only when used
inline constexpr uint32_t OS_MEMFLAG_EXTERNAL = 0x8000;    // from the external allocator
inline constexpr uint32_t OS_MEMFLAG_MOVEABLE = 0x10200;   // any of these bits: a moveable block

enum EOSSHAREDMODE : uint32_t
{
    OS_SHAREDMODE_UNDEFINED = 0,
    OS_SHAREDMODE_MAPFILEASNEEDED = 1,
    OS_SHAREDMODE_MAPFILEALL = 2,
    OS_SHAREDMODE_MAPPAGEFILEASNEEDED = 3,
    OS_SHAREDMODE_MAPPAGEFILEALL = 4,
    OS_SHAREDMODE_LAST = 5,
};

enum EOSSHAREDALLOC : uint32_t
{
    OS_SHAREDALLOC_CREATE = 2,
    OS_SHAREDALLOC_OPEN = 3,
};

enum EOSSHAREDLOCK : uint32_t
{
    OS_SHAREDLOCK_NONE = 0,
    OS_SHAREDLOCK_LOCK = 1,
    OS_SHAREDLOCK_LOCKIFNEW = 2,
};

// Flags of a shared allocation.
inline constexpr uint32_t OS_SHAREDFLAG_FILE = 4;            // backed by the file, whatever the mode
inline constexpr uint32_t OS_SHAREDFLAG_READONLY = 16;       // an open that only reads
inline constexpr uint32_t OS_SHAREDFLAG_EXCLUSIVE = 0x800;   // the file is opened without sharing

using OsMemExternalAllocProc = void* (*)(size_t a_sizetBytes);
using OsMemExternalFreeProc = void (*)(void* a_pvBlock);

class COsMemImpl;

// The manager. Created once per process by the start of the library; installs itself as the process's manager.
class COsMem
{
public:
    COsMem();
    ~COsMem();   // frees the manager's own tables; blocks that are still live stay allocated
    COsMem(const COsMem&) = delete;
    COsMem& operator=(const COsMem&) = delete;

    // The method of ordinary blocks: OS_MEMTYPE_MALLOC or OS_MEMTYPE_GLOBALALLOC (the initial one).
    void SetMethod(EOSMEMTYPE a_eosmemtype);
    void SetExternal(OsMemExternalAllocProc a_osmemexternalallocproc, OsMemExternalFreeProc a_osmemexternalfreeproc);

    struct Counts
    {
        uint32_t u32Allocations;   // total so far
        uint32_t u32Current;       // live now
        uint64_t u64CurrentBytes;
        uint64_t u64PeakBytes;
        uint32_t u32Frees;   // total so far
    };
    Counts GetCounts() const;

private:
    COsMemImpl* m_posmemimpl;
};

bool OsMemExists();   // true while the process has a manager

// Allocates a zero-filled block, 64 bytes longer than requested; null (logged and reported) when there is no memory.
// a_szFile and a_u32Line are the caller's, for the trace.
void* OsMemAlloc(size_t a_sizetBytes, const char* a_szFile, uint32_t a_u32Line, uint32_t a_u32Flags);
// For a block allocated while the table of 2,048 was full, logs "Can't find managed item..." and frees it.
void OsMemFree(void* a_pvBlock, const char* a_szFile, uint32_t a_u32Line, uint32_t a_u32Flags);

// While off, no lines are logged for blocks of the calling thread.
void OsMemSetTrace(bool a_blTrace);

// Logs the record of a block, or of every block in use when a_pvBlock is null.
void OsMemDump(const void* a_pvBlock);

// Maps the shared memory named by the file a_szName. a_u64Bytes is its size and a_i64View the part to map (0 or less:
// all); for an open both may be 0: the existing size. Opening a file shorter than a_u64Bytes extends it. Returns the
// view, or null (logged), also when the requested lock is held by another process. Release the view with OsMemFree; a
// created file is deleted with its last handle.
void* OsMemSharedAlloc(EOSSHAREDALLOC a_eossharedalloc, const char* a_szName, uint64_t a_u64Bytes, int64_t a_i64View,
                       EOSSHAREDLOCK a_eossharedlock, uint32_t a_u32Flags, const char* a_szFile, uint32_t a_u32Line);

// Tries to take the mapping's inter-process lock: EOSSTS_LOCKED when this process holds it afterwards, EOSSTS_NOTLOCKED
// when another process does, EOSSTS_FAIL when a_pvView is not a mapping.
EOSSTS OsMemSharedLock(void* a_pvView, const char* a_szFile, uint32_t a_u32Line);
EOSSTS OsMemSharedUnlock(void* a_pvView, const char* a_szFile, uint32_t a_u32Line);

// The number of accessible bytes of a view: less than its size if another process has truncated the file, 0 if it is
// not a view. Accessing truncated bytes outside a PlatMappingGuard ends the process.
uint64_t OsMemSharedSize(void* a_pvView, const char* a_szFile, uint32_t a_u32Line);
EOSSTS OsMemSharedFlush(void* a_pvView, const char* a_szFile, uint32_t a_u32Line);

// Moves a view to another offset, rounded down to the system's granularity, so that it covers a_sizetSize bytes (0: to
// the end) from there. Returns the new view (the old one is invalid), or null (the old one stays valid).
void* OsMemSharedRemap(void* a_pvView, uint64_t a_u64Offset, size_t a_sizetSize, const char* a_szFile,
                       uint32_t a_u32Line);

#define OSMEMALLOC(a_sizetBytes, a_u32Flags)                                                                           \
    OsMemAlloc((a_sizetBytes), g_szSource, static_cast<uint32_t>(__LINE__), (a_u32Flags))
#define OSMEMFREE(a_pvBlock, a_u32Flags)                                                                               \
    OsMemFree((a_pvBlock), g_szSource, static_cast<uint32_t>(__LINE__), (a_u32Flags))

// Encodes to terminated text. EOSSTS_FAIL for a bad argument or when it does not fit.
EOSSTS Base64Encode(char* a_szDestination, size_t a_sizetDestination, size_t* a_psizetLength, const void* a_pvSource,
                    size_t a_sizetSource, bool a_blUrlSafe);

// Decodes either alphabet up to the first "=". The result is bytes: one that fits exactly is not terminated.
EOSSTS Base64Decode(void* a_pvDestination, size_t a_sizetDestination, size_t* a_psizetLength, const char* a_szSource,
                    size_t a_sizetSource);

// Escapes for a URL, up to 2048 bytes. EOSSTS_NOMEMORY when the worst case would not fit.
inline constexpr size_t OS_URLSIZE = 2048;
EOSSTS UrlEncode(char* a_szDestination, size_t* a_psizetLength, const void* a_pvSource, size_t a_sizetSource);

// Logs the process's resource usage at level 4, with the caller's source name, if diagnostics are enabled and the
// system provides it.
void OsMemLogUsage(const char* a_szFile, uint32_t a_u32Line);
