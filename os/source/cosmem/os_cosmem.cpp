// os_cosmem.cpp: the process's manager, its table of live blocks, and the two operations on ordinary blocks.
//
// In order: the manager of the process, the table (lock held), the bookkeeping (takes the lock), allocation, release,
// the public object.
#include "os_cosmem_impl.h"

#include "os_cosspinlock.h"
#include "os_new.h"

#include "plat_memory.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <iterator>

static constexpr char g_szSource[] = "os/source/os_cosmem";

// ------------------------------------------------------------------------------------- the manager of the process

static std::atomic<COsMemImpl*> g_posmemimpl{nullptr};

COsMemImpl* OsMemImplementation()
{
    return g_posmemimpl.load(std::memory_order_acquire);
}

bool OsMemExists()
{
    return OsMemImplementation() != nullptr;
}

// The system commits the pages of the records when they are first touched, so a start costs no memory for them.
COsMemImpl::COsMemImpl()
{
    m_aosmemrecord = static_cast<OsMemRecord*>(PlatMemoryPageAlloc(OS_MEMSLOTS * sizeof(OsMemRecord), &m_sizetRecords));
    if (!m_aosmemrecord)
        OSLOG(OS_LOG_CHECK, "Well this ain't good...");
}

COsMemImpl::~COsMemImpl()
{
    if (m_aosmemrecord)
        PlatMemoryPageFree(m_aosmemrecord, m_sizetRecords);
}

void COsMemImpl::SetExternal(OsMemExternalAllocProc a_osmemexternalallocproc,
                             OsMemExternalFreeProc a_osmemexternalfreeproc)
{
    const COsSpinGuard guard(&m_u64Lock);
    m_external = {a_osmemexternalallocproc, a_osmemexternalfreeproc};
}

COsMemImpl::External COsMemImpl::Externals()
{
    const COsSpinGuard guard(&m_u64Lock);
    return m_external;
}

COsMem::Counts COsMemImpl::GetCounts()
{
    const COsSpinGuard guard(&m_u64Lock);
    return m_counts;
}

// ------------------------------------------------------------------------------------ the table, with the lock held

uint32_t COsMemImpl::FindSlot(const void* a_pvBlock) const
{
    if (!a_pvBlock)
        return OS_MEMSLOTS;
    void* const* const ppvEnd = m_apvSlot + m_u32SlotsTouched;
    void* const* const ppvSlot = std::find(m_apvSlot, ppvEnd, a_pvBlock);
    return ppvSlot == ppvEnd ? OS_MEMSLOTS : static_cast<uint32_t>(ppvSlot - m_apvSlot);
}

uint32_t COsMemImpl::TakeSlot(void* a_pvBlock)
{
    void** const ppvSlot = std::find(m_apvSlot + m_u32FirstFree, std::end(m_apvSlot), nullptr);
    const uint32_t u32Slot = static_cast<uint32_t>(ppvSlot - m_apvSlot);
    m_u32FirstFree = u32Slot;
    if (u32Slot == OS_MEMSLOTS)
        return u32Slot;

    *ppvSlot = a_pvBlock;
    m_u32FirstFree = u32Slot + 1;
    m_u32SlotsTouched = std::max(m_u32SlotsTouched, m_u32FirstFree);
    return u32Slot;
}

void COsMemImpl::CountIn(uint64_t a_u64Size)
{
    m_counts.u64CurrentBytes += a_u64Size;
    m_counts.u64PeakBytes = std::max(m_counts.u64PeakBytes, m_counts.u64CurrentBytes);
}

void COsMemImpl::CountOut(uint64_t a_u64Size)
{
    m_counts.u32Frees++;
    m_counts.u32Current--;
    m_counts.u64CurrentBytes -= a_u64Size;
}

// ------------------------------------------------------------------------------------------------ the bookkeeping

// Records a block, or counts a failed allocation. Returns the counters right after this allocation; a block that cannot
// be recorded is included there and removed afterwards.
COsMem::Counts COsMemImpl::Track(const Block& a_block)
{
    const bool blRecord = a_block.pvAddress && m_aosmemrecord;
    uint32_t u32Slot = OS_MEMSLOTS;
    COsMem::Counts counts;
    {
        const COsSpinGuard guard(&m_u64Lock);
        m_counts.u32Allocations++;
        m_counts.u32Current++;
        if (blRecord)
            u32Slot = TakeSlot(a_block.pvAddress);
        if (u32Slot != OS_MEMSLOTS)
        {
            OsMemRecord& osmemrecord = m_aosmemrecord[u32Slot];
            osmemrecord.u32Method = a_block.u32Method;
            osmemrecord.pvAddress = a_block.pvAddress;
            osmemrecord.u64Size = a_block.u64Size;
            CountIn(a_block.u64Size);
        }
        counts = m_counts;
        if (u32Slot == OS_MEMSLOTS)
            m_counts.u32Current--;
    }
    if (blRecord && u32Slot == OS_MEMSLOTS)
        OSLOG(OS_LOG_CHECK, "mem>>> No free slots...");
    if (a_block.pvAddress && u32Slot == OS_MEMSLOTS)
    {
        OSLOG(OS_LOG_CHECK, "mem>>> memory manager failed to allocate...");
        OsMemRecord osmemrecord = {};
        osmemrecord.u32Method = a_block.u32Method;
        osmemrecord.pvAddress = a_block.pvAddress;
        osmemrecord.u64Size = a_block.u64Size;
        Keep(osmemrecord);
    }
    return counts;
}

// Blocks of the external allocator are not tracked: they are counted in and at once out again.
COsMem::Counts COsMemImpl::CountPassing(const Block& a_block)
{
    const COsSpinGuard guard(&m_u64Lock);
    m_counts.u32Allocations++;
    m_counts.u32Current++;
    CountIn(a_block.u64Size);
    CountOut(a_block.u64Size);
    return m_counts;
}

bool COsMemImpl::TrackMapping(const OsMemRecord& a_osmemrecord, COsMem::Counts* a_pcounts)
{
    const COsSpinGuard guard(&m_u64Lock);
    const uint32_t u32Slot = m_aosmemrecord ? TakeSlot(a_osmemrecord.pvAddress) : OS_MEMSLOTS;
    if (u32Slot == OS_MEMSLOTS)
        return false;
    m_aosmemrecord[u32Slot] = a_osmemrecord;
    m_counts.u32Allocations++;
    m_counts.u32Current++;
    CountIn(a_osmemrecord.u64Size);
    *a_pcounts = m_counts;
    return true;
}

// Only a mapping uses the name and the members behind it; for other blocks copying up to the empty name is enough.
static void MoveRecord(OsMemRecord* a_posmemrecordFrom, OsMemRecord* a_posmemrecordTo)
{
    const bool blWhole = a_posmemrecordFrom->u32Method == OS_MEMTYPE_MEMORYMAP;
    const size_t sizetBytes = blWhole ? sizeof *a_posmemrecordFrom : offsetof(OsMemRecord, szName) + 1;
    std::memcpy(a_posmemrecordTo, a_posmemrecordFrom, sizetBytes);
    std::memset(a_posmemrecordFrom, 0, sizetBytes);
}

// Removes the record before the block is freed, so that no other thread can find it.
bool COsMemImpl::Untrack(const void* a_pvBlock, OsMemRecord* a_posmemrecord, COsMem::Counts* a_pcounts)
{
    const COsSpinGuard guard(&m_u64Lock);
    const uint32_t u32Slot = FindSlot(a_pvBlock);
    if (u32Slot == OS_MEMSLOTS)
        return false;
    MoveRecord(&m_aosmemrecord[u32Slot], a_posmemrecord);
    m_apvSlot[u32Slot] = nullptr;
    m_u32FirstFree = std::min(m_u32FirstFree, u32Slot);
    CountOut(a_posmemrecord->u64Size);
    *a_pcounts = m_counts;
    return true;
}

bool COsMemImpl::Keep(const OsMemRecord& a_osmemrecord)
{
    OsMemUntracked::Node* const pnode = OsMemUntracked::Make(a_osmemrecord);
    if (!pnode)
        return false;
    const COsSpinGuard guard(&m_u64Lock);
    m_osmemuntracked.Add(pnode);
    return true;
}

// Removes a block from those kept beyond the table.
bool COsMemImpl::GiveUp(const void* a_pvBlock, OsMemRecord* a_posmemrecord)
{
    OsMemUntracked::Node* pnode;
    {
        const COsSpinGuard guard(&m_u64Lock);
        pnode = m_osmemuntracked.Remove(a_pvBlock);
    }
    if (!pnode)
        return false;
    *a_posmemrecord = pnode->osmemrecord;
    OsMemUntracked::Free(pnode);
    return true;
}

// ------------------------------------------------------------------------------------------------------ allocation

// The letter of each method in the lines of allocations and of frees.
static constexpr char g_szLettersAlloc[] = ".mgvfe..";
static constexpr char g_szLettersFree[] = ".mgvfed.";

static char MethodLetter(const char* a_szLetters, uint32_t a_u32Method)
{
    return a_szLetters[std::min<uint32_t>(a_u32Method, OS_MEMTYPE_LAST)];
}

static void ValidateHeap(const char* a_szWhen, const OsMemCaller& a_osmemcaller)
{
    if (!(OsLogWorkingWord() & OS_MEMDEBUG_VALIDATE) || PlatMemoryValidate())
        return;
    OSLOG(OS_LOG_CHECK, "mem>>> HeapValidate %s failed...", a_szWhen);
    OSLOG_AT(a_osmemcaller.szFile, a_osmemcaller.u32Line, OS_LOG_ERROR, "mem>>> The error occurred here...");
}

static void* ExternalAlloc(OsMemExternalAllocProc a_osmemexternalallocproc, size_t a_sizetBytes)
{
    void* const pvBlock = a_osmemexternalallocproc(a_sizetBytes);
    if (!pvBlock)
    {
        OSLOG(OS_LOG_CHECK, ">>> memory manager failed to allocate...");
        return nullptr;
    }
    return std::memset(pvBlock, 0, a_sizetBytes);
}

static void* OrdinaryAlloc(EOSMEMTYPE a_eosmemtype, size_t a_sizetBytes, uint32_t a_u32Flags, size_t* a_psizetSize)
{
    *a_psizetSize = a_sizetBytes;
    if (a_eosmemtype == OS_MEMTYPE_MALLOC)
        return PlatMemoryHeapAlloc(a_sizetBytes);
    if (a_eosmemtype == OS_MEMTYPE_GLOBALALLOC)
        return PlatMemoryGlobalAlloc(a_sizetBytes, (a_u32Flags & OS_MEMFLAG_MOVEABLE) != 0, a_psizetSize);
    OSLOG(OS_LOG_CHECK, "mem>>> unrecognized method...%d", static_cast<int>(a_eosmemtype));
    return nullptr;
}

// Every block is zeroed and longer than requested, whatever its method.
COsMemImpl::Block COsMemImpl::Obtain(size_t a_sizetBytes, uint32_t a_u32Flags)
{
    const OsMemExternalAllocProc osmemexternalallocproc =
        (a_u32Flags & OS_MEMFLAG_EXTERNAL) ? Externals().osmemexternalallocproc : nullptr;
    const bool blPages = (a_u32Flags & 0x7FFF) == OS_MEMFLAG_PAGES;
    const EOSMEMTYPE eosmemtype = osmemexternalallocproc ? OS_MEMTYPE_DSM
                                  : blPages              ? OS_MEMTYPE_VIRTUAL
                                                         : m_eosmemtype.load(std::memory_order_relaxed);
    if (a_sizetBytes > SIZE_MAX - OS_MEMHEADROOM)
        return {nullptr, 0, eosmemtype};

    size_t sizetSize = a_sizetBytes + OS_MEMHEADROOM;
    void* const pvBlock = osmemexternalallocproc ? ExternalAlloc(osmemexternalallocproc, sizetSize)
                          : blPages              ? PlatMemoryPageAlloc(sizetSize, &sizetSize)
                                                 : OrdinaryAlloc(eosmemtype, sizetSize, a_u32Flags, &sizetSize);
    return {pvBlock, pvBlock ? sizetSize : 0, eosmemtype};
}

static thread_local bool t_blSilent = false;

void OsMemSetTrace(bool a_blTrace)
{
    t_blSilent = !a_blTrace;
}

static bool IsTraced()
{
    return !t_blSilent && OsLogWorkingWord() != 0;
}

static void TraceAlloc(const COsMemImpl::Block& a_block, const COsMem::Counts& a_counts,
                       const OsMemCaller& a_osmemcaller, uint32_t a_u32Flags)
{
    const uint32_t u32Level = a_u32Flags & 0xFFFF;
    const bool blExternal = a_block.u32Method == OS_MEMTYPE_DSM;
    const char cLetter = MethodLetter(blExternal ? g_szLettersFree : g_szLettersAlloc, a_block.u32Method);
    OSLOG_AT(a_osmemcaller.szFile, a_osmemcaller.u32Line, u32Level,
             "mem>>> %c%s  AD:%p   SZ:%-9d  AC:%-6d  FC:%-6d  CC:%-6d  CB:%-9llu  PB:%-9llu  FN:%s", cLetter,
             blExternal ? "-*" : "+ ", a_block.pvAddress, static_cast<int>(a_block.u64Size),
             static_cast<int>(a_counts.u32Allocations), static_cast<int>(a_counts.u32Frees),
             static_cast<int>(a_counts.u32Current), static_cast<unsigned long long>(a_counts.u64CurrentBytes),
             static_cast<unsigned long long>(a_counts.u64PeakBytes), "");
}

void* COsMemImpl::Alloc(size_t a_sizetBytes, const OsMemCaller& a_osmemcaller, uint32_t a_u32Flags)
{
    ValidateHeap("before allocation", a_osmemcaller);
    const Block block = Obtain(a_sizetBytes, a_u32Flags);
    const bool blPassing = block.pvAddress && block.u32Method == OS_MEMTYPE_DSM;
    const COsMem::Counts counts = blPassing ? CountPassing(block) : Track(block);
    ValidateHeap("after allocation", a_osmemcaller);

    if (IsTraced())
        TraceAlloc(block, counts, a_osmemcaller, a_u32Flags);
    if (!block.pvAddress)
        ReportFailure(a_osmemcaller);
    return block.pvAddress;
}

void COsMemImpl::ReportFailure(const OsMemCaller& a_osmemcaller)
{
    OSLOG_AT(a_osmemcaller.szFile, a_osmemcaller.u32Line, OS_LOG_CHECK, "mem>>> Error occurred here...");
    Dump(nullptr);
    OsMemWriteCrashReport();
}

void* OsMemAlloc(size_t a_sizetBytes, const char* a_szFile, uint32_t a_u32Line, uint32_t a_u32Flags)
{
    COsMemImpl* const posmemimpl = OsMemImplementation();
    if (!posmemimpl)
    {
        OSLOG(OS_LOG_ERROR, "mem>>> m_posmemimpl is null...");
        OSLOG_AT(a_szFile, a_u32Line, OS_LOG_CHECK, "mem>>> Error occurred here...");
        return nullptr;
    }
    if (a_sizetBytes == 0)
    {
        OSLOG(OS_LOG_ERROR, "mem>>> a_sizetBytes is 0...");
        OSLOG_AT(a_szFile, a_u32Line, OS_LOG_CHECK, "mem>>> Error occurred here (we're going to keep going)...");
    }
    return posmemimpl->Alloc(a_sizetBytes, {a_szFile, a_u32Line}, a_u32Flags);
}

// --------------------------------------------------------------------------------------------------------- release

static void TraceFree(const OsMemRecord& a_osmemrecord, const COsMem::Counts& a_counts,
                      const OsMemCaller& a_osmemcaller, uint32_t a_u32Flags)
{
    if (!IsTraced())
        return;
    OSLOG_AT(a_osmemcaller.szFile, a_osmemcaller.u32Line, a_u32Flags & 0xFFF,
             "mem>>> %c-%s AD:%p   SZ:%-9llu  AC:%-6d  FC:%-6d  CC:%-6d  CB:%-9llu  PB:%-9llu  FN:%s",
             MethodLetter(g_szLettersFree, a_osmemrecord.u32Method),
             a_osmemrecord.u32Method == OS_MEMTYPE_DSM ? "**" : "  ", a_osmemrecord.pvAddress,
             static_cast<unsigned long long>(a_osmemrecord.u64Size), static_cast<int>(a_counts.u32Allocations),
             static_cast<int>(a_counts.u32Frees), static_cast<int>(a_counts.u32Current),
             static_cast<unsigned long long>(a_counts.u64CurrentBytes),
             static_cast<unsigned long long>(a_counts.u64PeakBytes), a_osmemrecord.szName);
}

void COsMemImpl::ReleaseExternal(void* a_pvBlock, const OsMemCaller& a_osmemcaller)
{
    const OsMemExternalFreeProc osmemexternalfreeproc = Externals().osmemexternalfreeproc;
    if (!osmemexternalfreeproc)
    {
        OSLOG(OS_LOG_CHECK, "mem>>> m_pfnfree is null...");
        return;
    }
    try
    {
        osmemexternalfreeproc(a_pvBlock);
    }
    catch (...)
    {
        OSLOG(OS_LOG_CHECK, "mem>>> Exception thrown during free...");
        OSLOG_AT(a_osmemcaller.szFile, a_osmemcaller.u32Line, OS_LOG_ERROR, "mem>>> The error occurred here...");
    }
}

void COsMemImpl::Release(const OsMemRecord& a_osmemrecord, const OsMemCaller& a_osmemcaller)
{
    void* const pvBlock = a_osmemrecord.pvAddress;
    switch (a_osmemrecord.u32Method)
    {
    case OS_MEMTYPE_MALLOC:
        PlatMemoryHeapFree(pvBlock);
        break;
    case OS_MEMTYPE_GLOBALALLOC:
        PlatMemoryGlobalFree(pvBlock);
        break;
    case OS_MEMTYPE_VIRTUAL:
        PlatMemoryPageFree(pvBlock, static_cast<size_t>(a_osmemrecord.u64Size));
        break;
    case OS_MEMTYPE_MEMORYMAP:
        OsMemReleaseMapping(a_osmemrecord);
        break;
    case OS_MEMTYPE_DSM:
        ReleaseExternal(pvBlock, a_osmemcaller);
        break;
    default:
        OSLOG(OS_LOG_CHECK, "mem>>> Unrecognized eosmemtype...%d", static_cast<int>(a_osmemrecord.u32Method));
        break;
    }
}

// The block is not in the table: either the table was full when it was allocated, or it is not a tracked block.
void COsMemImpl::FreeUntracked(void* a_pvBlock, const OsMemCaller& a_osmemcaller, uint32_t a_u32Flags)
{
    OsMemRecord osmemrecord;
    const bool blKept = GiveUp(a_pvBlock, &osmemrecord);
    if (!blKept && (a_u32Flags & OS_MEMFLAG_EXTERNAL))
    {
        FreeUnrecorded(a_pvBlock, a_osmemcaller, a_u32Flags);
        return;
    }
    OSLOG(OS_LOG_CHECK, "mem>>> Can't find managed item...%p", a_pvBlock);
    OSLOG_AT(a_osmemcaller.szFile, a_osmemcaller.u32Line, OS_LOG_ERROR, "mem>>> The error occurred here...");
    if (blKept)
        Release(osmemrecord, a_osmemcaller);
}

// Blocks of the external allocator have no record; the caller's flag identifies them, and they were counted out before.
void COsMemImpl::FreeUnrecorded(void* a_pvBlock, const OsMemCaller& a_osmemcaller, uint32_t a_u32Flags)
{
    if (!Externals().osmemexternalfreeproc)
    {
        PlatMemoryGlobalFree(a_pvBlock);
        return;
    }
    OsMemRecord osmemrecord = {};
    osmemrecord.u32Method = OS_MEMTYPE_DSM;
    osmemrecord.pvAddress = a_pvBlock;
    TraceFree(osmemrecord, GetCounts(), a_osmemcaller, a_u32Flags);
    ReleaseExternal(a_pvBlock, a_osmemcaller);
}

void COsMemImpl::Free(void* a_pvBlock, const OsMemCaller& a_osmemcaller, uint32_t a_u32Flags)
{
    if ((a_u32Flags & OS_MEMFLAG_EXTERNAL) && !Externals().osmemexternalfreeproc)
        OSLOG(OS_LOG_NOTE, "mem>>> freeing value given to us by another DLL...%p", a_pvBlock);

    OsMemRecord osmemrecord;
    COsMem::Counts counts;
    if (!Untrack(a_pvBlock, &osmemrecord, &counts))
    {
        FreeUntracked(a_pvBlock, a_osmemcaller, a_u32Flags);
        return;
    }
    ValidateHeap("before free", a_osmemcaller);
    TraceFree(osmemrecord, counts, a_osmemcaller, a_u32Flags);
    Release(osmemrecord, a_osmemcaller);
    ValidateHeap("after free", a_osmemcaller);
}

void OsMemFree(void* a_pvBlock, const char* a_szFile, uint32_t a_u32Line, uint32_t a_u32Flags)
{
    COsMemImpl* const posmemimpl = OsMemImplementation();
    if (!posmemimpl)
    {
        OSLOG(OS_LOG_CHECK, "mem>>> m_posmemimpl is null...");
        return;
    }
    if (!a_pvBlock)
    {
        OSLOG(OS_LOG_CHECK, "mem>>> Attempt to free a NULL value...");
        OSLOG_AT(a_szFile, a_u32Line, OS_LOG_ERROR, "mem>>> The error occurred here...");
        return;
    }
    posmemimpl->Free(a_pvBlock, {a_szFile, a_u32Line}, a_u32Flags);
}

// ----------------------------------------------------------------------------------------------- the public object

static bool Usable(const COsMemImpl* a_posmemimpl)
{
    if (!a_posmemimpl)
        OSLOG(OS_LOG_CHECK, "mem>>> m_posmemimpl is null...");
    return a_posmemimpl != nullptr;
}

COsMem::COsMem() : m_posmemimpl(OSMEMNEW(COsMemImpl))
{
    g_posmemimpl.store(m_posmemimpl, std::memory_order_release);
}

// Clears the process's pointer only if it points to this object.
COsMem::~COsMem()
{
    COsMemImpl* posmemimpl = m_posmemimpl;
    g_posmemimpl.compare_exchange_strong(posmemimpl, nullptr, std::memory_order_acq_rel);
    OSMEMDELETE(m_posmemimpl);
}

void COsMem::SetMethod(EOSMEMTYPE a_eosmemtype)
{
    if (Usable(m_posmemimpl))
        m_posmemimpl->SetMethod(a_eosmemtype);
}

void COsMem::SetExternal(OsMemExternalAllocProc a_osmemexternalallocproc, OsMemExternalFreeProc a_osmemexternalfreeproc)
{
    if (Usable(m_posmemimpl))
        m_posmemimpl->SetExternal(a_osmemexternalallocproc, a_osmemexternalfreeproc);
}

COsMem::Counts COsMem::GetCounts() const
{
    return Usable(m_posmemimpl) ? m_posmemimpl->GetCounts() : Counts{};
}
