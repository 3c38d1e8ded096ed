// os_cosfile_monitor.h: the events and the callback of a watched file (COsFile::MonitorStart).
#pragma once

#include "os_types.h"

// The events, also used as a mask of the wanted ones. A change of the file under the watched name is a modification,
// whatever its cause: a write, a rename of another file to the name, or a deletion and a new file. If the mask does not
// want modifications, it is reported as the first wanted bit of its causes.
inline constexpr uint32_t OS_FILEMONITOR_START = 1;   // the initial call, made by MonitorStart
inline constexpr uint32_t OS_FILEMONITOR_ADDED = 2;
inline constexpr uint32_t OS_FILEMONITOR_REMOVED = 4;
inline constexpr uint32_t OS_FILEMONITOR_MODIFIED = 8;
inline constexpr uint32_t OS_FILEMONITOR_OLDNAME = 16;
inline constexpr uint32_t OS_FILEMONITOR_NEWNAME = 32;

// In a mask: the file and its folder may be missing at the start. Content from before the start is not reported as a
// change.
inline constexpr uint32_t OS_FILEMONITOR_MAYBEMISSING = 0x80000000;

// Result of the callback when it lacked a resource: the call is repeated soon.
inline constexpr uint32_t OS_FILEMONITOR_CALLAGAIN = 0x40000000;

// An event.
struct OsFileMonitorRecord
{
    char szEntry[OS_PATHSIZE];          // the name within the folder
    char szPath[OS_PATHSIZE];           // the folder and the name
    uint32_t u32Event;                  // one OS_FILEMONITOR_ bit
    OSHANDLE plathandle = OS_INVALID;   // open for reading at its beginning, during the call only
    bool blFirstChange;                 // the first since the start
};
static_assert(sizeof(OsFileMonitorRecord) == 1048);

// The state for the callback, valid during the call only.
struct OsFileMonitorState
{
    OsFileMonitorRecord osfilemonitorrecord;
    char szPath[OS_PATHSIZE];   // the watched path as given
    char szName[64];            // the monitor's name
    void* pvContext;
    EOSSTS eossts;        // EOSSTS_NOTFOUND while the file cannot be read; osfilemonitorrecord is then the previous one
    bool blInitialCall;   // made by MonitorStart on the caller's thread
};
inline constexpr OsFileMonitorState OS_FILEMONITORSTATE_NONE{};

class COsFile;

// The callback: called once by the start, then for each change, and once when the file can no longer be read. Calls
// never overlap. It may stop the monitor and free the object. Results other than OS_FILEMONITOR_CALLAGAIN are ignored.
using OsFileMonitorProc = uint32_t (*)(COsFile* a_posfile);
