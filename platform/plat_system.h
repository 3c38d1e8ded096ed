// plat_system.h: the clock, the machine, its folders, and the modules of this process.
#pragma once

#include "plat_types.h"

// Eight 16-bit fields, in the order of the product's time record.
struct PlatTime
{
    uint16_t u16Year;
    uint16_t u16Month;       // 1 to 12
    uint16_t u16DayOfWeek;   // 0 is Sunday
    uint16_t u16Day;
    uint16_t u16Hour;
    uint16_t u16Minute;
    uint16_t u16Second;
    uint16_t u16Milliseconds;
};

// Units of 100 ns since 1601-01-01 UTC: the time now, and the calendar of a time in UTC or in local time. Both
// conversions fail with 87 for a time before 1601 or after 9999.
uint64_t PlatClock();
bool PlatTimeUtc(uint64_t a_u64Clock, PlatTime* a_pplattime);
bool PlatTimeLocal(uint64_t a_u64Clock, PlatTime* a_pplattime);

// Seconds since 1970 UTC of a local date and time that is meant without daylight saving. *a_pblDaylight tells that
// the system found daylight saving time in force on that date.
bool PlatTimeToSeconds(const PlatTime* a_pplattime, int64_t* a_pi64Seconds, bool* a_pblDaylight);

uint64_t PlatTicks();            // milliseconds of a clock that is never set, for time-outs
uint32_t PlatProcessorCount();   // 0 when it is not known

enum PlatFolder : uint32_t
{
    PLAT_FOLDER_LOCAL = 0,     // the user's application data of this machine
    PLAT_FOLDER_ROAMING = 1,   // the user's application data of every machine
    PLAT_FOLDER_PROGRAM = 2,   // application data of all users
    PLAT_FOLDER_TEMP = 3,
    PLAT_FOLDER_PROFILE = 4,   // the user's own folder
    PLAT_FOLDER_DESKTOP = 5,
    PLAT_FOLDER_PICTURES = 6,
    PLAT_FOLDER_DOCUMENTS = 7,
    PLAT_FOLDER_PROGRAMS = 8,    // where programs are installed
    PLAT_FOLDER_STARTMENU = 9,   // the menu of programs of all users
    PLAT_FOLDER_WINDOWS = 10,    // the system's own files
    PLAT_FOLDER_SYSTEM = 11,     // the system's libraries
};

// The folder's path; it need not exist. Where the system has no folders of these kinds of its own, the variables that
// name them on the product's system win: LOCALAPPDATA, APPDATA, PROGRAMDATA, SYSTEMROOT. False for a folder of a user
// who has none.
bool PlatFolderPath(PlatFolder a_platfolder, char16_t* a_wszPath, size_t a_sizetPath);

struct PlatModule
{
    uint64_t u64Address;
    uint64_t u64Size;
    const char* szPath;   // full, UTF-8, lives for the call
};

// Calls the procedure for each module of this process, the program first. It returns false to end the walk.
using PlatModuleProc = bool (*)(void* a_pvContext, const PlatModule* a_pplatmodule);
bool PlatModuleList(PlatModuleProc a_platmoduleproc, void* a_pvContext);

// A shared library of this process.
PlatHandle PlatModuleLoad(const char16_t* a_wszPath);
bool PlatModuleFree(PlatHandle a_plathandle);
bool PlatModuleIsLoaded(PlatHandle a_plathandle);
