// os_cosfile_monitor.h: what a file object tells whoever has it watch a file (COsFile::MonitorStart).
#pragma once

#include "os_types.h"

// What happened, and in a mask what is wanted. A change of what the watched name stands for is a modification, whatever
// it came by: a write, another file that was renamed to the name, a deletion and a new file. With a mask that wants
// no modifications it is reported under the first of the bits that it came by.
inline constexpr uint32_t OS_FILEMONITOR_START = 1;   // the call that the start itself makes
inline constexpr uint32_t OS_FILEMONITOR_ADDED = 2;
inline constexpr uint32_t OS_FILEMONITOR_REMOVED = 4;
inline constexpr uint32_t OS_FILEMONITOR_MODIFIED = 8;
inline constexpr uint32_t OS_FILEMONITOR_OLDNAME = 16;
inline constexpr uint32_t OS_FILEMONITOR_NEWNAME = 32;

// In a mask: the file may be missing at the start, with its folder, and is waited for. What it has held since before
// the start is no change.
inline constexpr uint32_t OS_FILEMONITOR_MAYBEMISSING = 0x80000000;

// The callback's result when it could not do its work for want of something: the call is made again soon.
inline constexpr uint32_t OS_FILEMONITOR_CALLAGAIN = 0x40000000;

// An event.
struct OsFileMonitorRecord
{
    char szEntry[OS_PATHSIZE];          // the name within the folder
    char szPath[OS_PATHSIZE];           // the folder and the name
    uint32_t u32Event;                  // one OS_FILEMONITOR_ bit
    OSHANDLE plathandle = OS_INVALID;   // the watched file, open for reading at its beginning, for the call alone
    bool blFirstChange;                 // the first since the start
};
static_assert(sizeof(OsFileMonitorRecord) == 1048);

// What the callback sees, during the call alone.
struct OsFileMonitorState
{
    OsFileMonitorRecord osfilemonitorrecord;
    char szPath[OS_PATHSIZE];   // the watched path, as it was given
    char szName[64];            // the monitor's
    void* pvContext;
    EOSSTS eossts;        // EOSSTS_NOTFOUND while the watched file cannot be read: the record is then an older one
    bool blInitialCall;   // of the start, on its caller's thread
};
inline constexpr OsFileMonitorState OS_FILEMONITORSTATE_NONE{};

class COsFile;

// Called with the watching object: once by the start, then once for each change, and once when the file cannot be
// read any more. Calls never meet. It may stop the monitor, and free the object. Results other than
// OS_FILEMONITOR_CALLAGAIN do not matter.
using OsFileMonitorProc = uint32_t (*)(COsFile* a_posfile);
