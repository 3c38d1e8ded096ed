// plat_machine.h: what this machine is: its system, its processors, its name, who works on it, and where the system
// lies. Nothing here changes while a process lives, as far as a program can rely on it.
#pragma once

#include "plat_types.h"

inline constexpr uint32_t PLAT_PLATFORM_OTHER = 0;
inline constexpr uint32_t PLAT_PLATFORM_NT = 2;   // the product's own system
inline constexpr uint32_t PLAT_PRODUCT_WORKSTATION = 1;
inline constexpr uint32_t PLAT_PRODUCT_SERVER = 3;

struct PlatVersion
{
    uint32_t u32Platform;
    uint32_t u32Major;
    uint32_t u32Minor;
    uint32_t u32Build;
    uint32_t u32ServicePackMajor;
    uint32_t u32ServicePackMinor;
    uint32_t u32ProductType;
};

enum PlatVersionReading : uint32_t
{
    PLAT_VERSION_RAW = 0,      // as the system tells it to a program that it does not know
    PLAT_VERSION_COOKED = 1,   // as it really is
};

bool PlatVersionGet(PlatVersionReading a_platversionreading, PlatVersion* a_pplatversion);

// Texts are ASCII, as the processor gives them, and empty where it gives none; numbers are then 0.
struct PlatProcessor
{
    char szVendor[13];
    char szModel[49];
    char szHypervisor[13];      // vendor of the hypervisor that the machine runs on, if it shows itself
    uint32_t u32Architecture;   // PLAT_ARCHITECTURE_
    uint32_t u32MachineBits;
    uint32_t u32Level;   // the highest function of its identification
    uint32_t u32Family;
    uint32_t u32Model;
    uint32_t u32Stepping;
    uint32_t u32CacheSize;   // of the second level, in KiB
    uint32_t u32Mhz;
    bool blFpu;
    bool blMmx;
    bool blSse;
    bool blSse2;
    bool blSse3;
    bool blSse41;
    bool blSse42;
    bool blSse4a;
    bool blPopcnt;
    bool bl3dNow;
    bool blHyperThreading;
};

inline constexpr uint32_t PLAT_ARCHITECTURE_AMD64 = 9;
inline constexpr uint32_t PLAT_ARCHITECTURE_UNKNOWN = 0xFFFF;

// The processor that the calling thread runs on. False, with 1, on a machine whose processors do not tell.
bool PlatProcessorGet(PlatProcessor* a_pplatprocessor);

bool PlatHostName(char16_t* a_wszName, size_t a_sizetName);

enum PlatUser : uint32_t
{
    PLAT_USER_SESSION = 0,   // who works in the session of this process
    PLAT_USER_ACCOUNT = 1,   // whom this process runs for
    PLAT_USER_FIRST = 2,     // the first ordinary account of the machine
};

// The name of an account; 2 when there is none.
bool PlatUserName(PlatUser a_platuser, char16_t* a_wszName, size_t a_sizetName);

// The process that runs a service of the system. False when no service of that name runs; 1 on a system that knows no
// services by name.
bool PlatServiceProcess(const char16_t* a_wszService, uint64_t* a_pu64ProcessId);

struct PlatVolume
{
    char16_t wszDevice[PLAT_PATHMAX];   // empty when it has no name
    uint32_t u32SerialNumber;
};

// The volume that a folder is on; null: the one that the system lies on.
bool PlatVolumeGet(const char16_t* a_wszFolder, PlatVolume* a_pplatvolume);
