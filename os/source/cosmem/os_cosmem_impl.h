// os_cosmem_impl.h: shared by the sources of the memory manager.
//
// os_cosmem.cpp tracks blocks, os_cosmem_untracked.cpp keeps those without a slot in the full table;
// os_cosmem_shared.cpp has the operations on shared memory and os_cosmem_map.cpp maps it; os_cosmem_report.cpp logs the
// table and writes the crash report.
#pragma once

#include "os_cosmem.h"

#include "plat_types.h"

#include <atomic>
#include <bit>

// The caller of an operation, for log lines in its name.
struct OsMemCaller
{
    const char* szFile;
    uint32_t u32Line;
};

inline constexpr uint32_t OS_MEMSLOTS = 2048;
inline constexpr size_t OS_MEMHEADROOM = 64;              // extra bytes of every block
inline constexpr uint32_t OS_MEMLEVEL = 0x1100;           // level of the memory tracker's own lines
inline constexpr uint32_t OS_MEMDEBUG_VALIDATE = 0x200;   // bit of the logger's working word: validate the heaps

inline constexpr uint32_t OS_MEMTRAIT_READONLY = 1;    // the view is read-only
inline constexpr uint32_t OS_MEMTRAIT_GROWN = 2;       // the file was extended for the view
inline constexpr uint32_t OS_MEMTRAIT_TEMPORARY = 4;   // the file is deleted with its last handle
inline constexpr uint32_t OS_MEMLOCK_HELD = 1;         // this process holds the file lock

// The record of one live block. Handles are 0 if unused, sizes are in bytes.
struct OsMemRecord
{
    uint32_t u32Method;   // EOSMEMTYPE
    uint32_t u32Traits;
    void* pvAddress;
    uint64_t u64Size;     // of the block, or of the memory behind the view
    uint64_t u64Offset;   // of the view in its file
    uint32_t u32View;     // size of the view as it is logged
    char szName[OS_PATHSIZE];
    uint32_t u32Lock;
    PlatHandle plathandleFile;
    PlatHandle plathandleMapping;   // memory without a file of its own
    uint64_t u64View;               // size of the view
};
static_assert(sizeof(OsMemRecord) == 576);

// A 64-bit value for "%p".
inline void* OsMemPointer(uint64_t a_u64Value)
{
    return std::bit_cast<void*>(a_u64Value);
}

// The arguments of OsMemSharedAlloc.
struct OsMemSharedRequest
{
    EOSSHAREDALLOC eossharedalloc;
    const char* szName;
    uint64_t u64Bytes;
    int64_t i64View;
    EOSSHAREDLOCK eossharedlock;
    uint32_t u32Flags;
};

// Blocks for which the full table has no slot: not counted and not dumped, but found when they are freed. Call with the
// manager's lock held, except for Make and Free.
class OsMemUntracked
{
public:
    struct Node
    {
        Node* pnodeNext;
        OsMemRecord osmemrecord;
    };

    OsMemUntracked() = default;
    ~OsMemUntracked();
    OsMemUntracked(const OsMemUntracked&) = delete;
    OsMemUntracked& operator=(const OsMemUntracked&) = delete;

    static Node* Make(const OsMemRecord& a_osmemrecord);   // null when there is no memory
    static void Free(Node* a_pnode);

    void Add(Node* a_pnode);
    Node* Find(const void* a_pvBlock) const;   // null if not found
    Node* Remove(const void* a_pvBlock);       // null if not found

private:
    static constexpr size_t m_sizetBuckets = 256;
    static size_t BucketOf(const void* a_pvBlock);

    Node* m_apnodeBucket[m_sizetBuckets] = {};
};

// One lock guards the table, the counters and the settings. It is held for the bookkeeping only: never while memory is
// allocated or freed, and never while a line is logged.
class COsMemImpl
{
public:
    struct Block
    {
        void* pvAddress;
        uint64_t u64Size;
        uint32_t u32Method;
    };

    COsMemImpl();
    ~COsMemImpl();
    COsMemImpl(const COsMemImpl&) = delete;
    COsMemImpl& operator=(const COsMemImpl&) = delete;

    void SetMethod(EOSMEMTYPE a_eosmemtype) { m_eosmemtype.store(a_eosmemtype, std::memory_order_relaxed); }
    void SetExternal(OsMemExternalAllocProc a_osmemexternalallocproc, OsMemExternalFreeProc a_osmemexternalfreeproc);
    COsMem::Counts GetCounts();

    void* Alloc(size_t a_sizetBytes, const OsMemCaller& a_osmemcaller, uint32_t a_u32Flags);
    void Free(void* a_pvBlock, const OsMemCaller& a_osmemcaller, uint32_t a_u32Flags);
    void Dump(const void* a_pvBlock);

    void* SharedAlloc(const OsMemSharedRequest& a_osmemsharedrequest, const OsMemCaller& a_osmemcaller);
    EOSSTS SharedLock(void* a_pvView, const OsMemCaller& a_osmemcaller);
    EOSSTS SharedUnlock(void* a_pvView, const OsMemCaller& a_osmemcaller);
    uint64_t SharedSize(void* a_pvView, const OsMemCaller& a_osmemcaller);
    EOSSTS SharedFlush(void* a_pvView, const OsMemCaller& a_osmemcaller);
    void* SharedRemap(void* a_pvView, uint64_t a_u64Offset, size_t a_sizetSize, const OsMemCaller& a_osmemcaller);

private:
    struct External
    {
        OsMemExternalAllocProc osmemexternalallocproc;
        OsMemExternalFreeProc osmemexternalfreeproc;
    };

    // With the lock held.
    uint32_t FindSlot(const void* a_pvBlock) const;   // OS_MEMSLOTS when it is not recorded
    uint32_t TakeSlot(void* a_pvBlock);               // OS_MEMSLOTS when all are used
    void CountIn(uint64_t a_u64Size);
    void CountOut(uint64_t a_u64Size);

    External Externals();
    Block Obtain(size_t a_sizetBytes, uint32_t a_u32Flags);
    COsMem::Counts Track(const Block& a_block);
    COsMem::Counts CountPassing(const Block& a_block);
    bool TrackMapping(const OsMemRecord& a_osmemrecord, COsMem::Counts* a_pcounts);
    bool Untrack(const void* a_pvBlock, OsMemRecord* a_posmemrecord, COsMem::Counts* a_pcounts);
    bool Keep(const OsMemRecord& a_osmemrecord);   // beyond the table; false when there is no memory
    bool GiveUp(const void* a_pvBlock, OsMemRecord* a_posmemrecord);

    void FreeUntracked(void* a_pvBlock, const OsMemCaller& a_osmemcaller, uint32_t a_u32Flags);
    void FreeUnrecorded(void* a_pvBlock, const OsMemCaller& a_osmemcaller, uint32_t a_u32Flags);
    void Release(const OsMemRecord& a_osmemrecord, const OsMemCaller& a_osmemcaller);
    void ReleaseExternal(void* a_pvBlock, const OsMemCaller& a_osmemcaller);
    void ReportFailure(const OsMemCaller& a_osmemcaller);

    OsMemRecord* FindRecord(const void* a_pvBlock) const;   // call with the lock held; null if not found
    void Move(const void* a_pvView, const OsMemRecord& a_osmemrecordNew);

    // Runs the action on the record of a view, with the lock held. False (logged) when it is not a view.
    template <class Action>
    bool WithMapping(const void* a_pvView, const OsMemCaller& a_osmemcaller, Action a_action);

    EOSSHAREDMODE SharedMode();
    bool IsFileBacked(const OsMemSharedRequest& a_osmemsharedrequest);

    std::atomic<EOSMEMTYPE> m_eosmemtype = OS_MEMTYPE_GLOBALALLOC;   // of ordinary blocks
    COsMem::Counts m_counts = {};
    void* m_apvSlot[OS_MEMSLOTS] = {};       // addresses, null is free
    OsMemRecord* m_aosmemrecord = nullptr;   // one per slot; null only when its allocation failed
    uint64_t m_u64Lock = 0;
    EOSSHAREDMODE m_eossharedmode = OS_SHAREDMODE_UNDEFINED;   // undefined until first used
    External m_external = {};

    OsMemUntracked m_osmemuntracked;
    size_t m_sizetRecords = 0;        // bytes committed for the records
    uint32_t m_u32FirstFree = 0;      // all slots below are used
    uint32_t m_u32SlotsTouched = 0;   // slots from here on were never used
};

// The process's manager, null if there is none.
COsMemImpl* OsMemImplementation();

// Writes the crash report file: the machine's memory, this process's address space and its modules. Allocates nothing
// and takes no lock.
void OsMemWriteCrashReport();

// Maps what a request asks for and fills the record; on failure returns false (logged) and leaves nothing behind.
// OsMemReleaseMapping releases the view and the handles of a record.
bool OsMemMap(const OsMemSharedRequest& a_osmemsharedrequest, bool a_blFileBacked, OsMemRecord* a_posmemrecord);
void OsMemReleaseMapping(const OsMemRecord& a_osmemrecord);
