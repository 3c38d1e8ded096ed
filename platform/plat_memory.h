// plat_memory.h: memory from the system, and what the system tells about it. Nothing here allocates on the side,
// so that a report on memory can be written when there is none.
#pragma once

#include "plat_types.h"

// Whole pages, zeroed, touched only when used. *a_psizetCommitted receives the size in bytes that was committed and
// that PlatMemoryPageFree wants back.
void* PlatMemoryPageAlloc(size_t a_sizetBytes, size_t* a_psizetCommitted);
bool PlatMemoryPageFree(void* a_pvBlock, size_t a_sizetCommitted);

// Zeroed blocks of the process heap.
void* PlatMemoryHeapAlloc(size_t a_sizetBytes);
void PlatMemoryHeapFree(void* a_pvBlock);

// Zeroed blocks of the system's global heap; moveable is a wish. *a_psizetSize receives the size of the block.
void* PlatMemoryGlobalAlloc(size_t a_sizetBytes, bool a_blMoveable, size_t* a_psizetSize);
void PlatMemoryGlobalFree(void* a_pvBlock);

// False when a heap of the process is damaged. A system that cannot tell says true.
bool PlatMemoryValidate();

struct PlatMemoryStatus
{
    uint32_t u32Load;   // per cent of the physical memory in use
    uint64_t u64TotalPhysical;
    uint64_t u64AvailPhysical;
    uint64_t u64TotalVirtual;   // of this process's address space
    uint64_t u64AvailVirtual;
    uint64_t u64TotalPagefile;
    uint64_t u64AvailPagefile;
    uint64_t u64AvailExtended;
};

bool PlatMemoryGetStatus(PlatMemoryStatus* a_pplatmemorystatus);
bool PlatMemoryWorkingSet(uint64_t* a_pu64Bytes, uint64_t* a_pu64Pages);   // of this process, resident now

// What this process has used, in bytes but for the faults. The pagefile figures are what it has for itself alone.
struct PlatMemoryUsage
{
    uint32_t u32PageFaults;
    uint64_t u64PeakWorkingSet;
    uint64_t u64PagefileUsage;
    uint64_t u64PeakPagefileUsage;
};

bool PlatMemoryGetUsage(PlatMemoryUsage* a_pplatmemoryusage);

struct PlatMemoryRegion
{
    uint64_t u64Address;
    uint64_t u64Size;
    bool blFree;
};

// Calls the procedure for each region of the user address space, used and free, in ascending order. It returns
// false to end the walk.
using PlatMemoryRegionProc = bool (*)(void* a_pvContext, const PlatMemoryRegion* a_pplatmemoryregion);
bool PlatMemoryListRegions(PlatMemoryRegionProc a_platmemoryregionproc, void* a_pvContext);

size_t PlatMemoryPageSize();      // in bytes
size_t PlatMemoryGranularity();   // the step of mapping offsets and sizes, in bytes
