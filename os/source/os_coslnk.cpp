// os_coslnk.cpp: the list. Order of the implementation: geometry, nodes, growing, adding, walking, removing; then the
// public object.
//
// Nodes are packed, so with an odd item size their two header words are unaligned: they are accessed with memcpy, which
// costs nothing when they are aligned.
#include "os_coslnk.h"

#include "os_cosmem.h"
#include "os_cosspinlock.h"
#include "os_cosstring.h"
#include "os_new.h"

#include "plat_thread.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <functional>

static constexpr char g_szSource[] = "os/source/os_coslnk";

static constexpr uint32_t g_u32NodeHeader = 16;   // the next node, and whether this one is in use
static constexpr uint32_t g_u32NodeUsed = 8;      // offset of the second of the two

class COsLnkImpl
{
public:
    COsLnkImpl(uint32_t a_u32ItemSize, uint32_t a_u32NodesPerChunk);
    ~COsLnkImpl();
    COsLnkImpl(const COsLnkImpl&) = delete;
    COsLnkImpl& operator=(const COsLnkImpl&) = delete;

    bool Add(const void* a_pvItem);
    void* AddAndLock(const void* a_pvItem, const void* a_pvAfterItem, bool a_blLock, bool a_blNewHead);
    void* GetFirstAndLock(const char* a_szFunction, const char* a_szFile, uint32_t a_u32Line);
    void Unlock();
    void Remove(const void* a_pvItem, bool a_blAll, bool a_blLock);
    const OsLnkHolder& Holder() const { return m_oslnkholder; }
    int32_t Count() const { return m_i32Count.load(std::memory_order_relaxed); }
    uint32_t ChunkCount() const { return m_u32Chunks.load(std::memory_order_relaxed); }

    // A node; callers see its item.
    using Node = char*;
    static Node NodeOf(const void* a_pvItem)
    {
        return static_cast<Node>(const_cast<void*>(a_pvItem)) - g_u32NodeHeader;
    }
    static void* ItemOf(Node a_node) { return a_node ? a_node + g_u32NodeHeader : nullptr; }
    static Node Next(Node a_node)
    {
        Node node;
        std::memcpy(&node, a_node, sizeof node);
        return node;
    }

private:
    static void SetNext(Node a_node, Node a_nodeNext) { std::memcpy(a_node, &a_nodeNext, sizeof a_nodeNext); }
    static bool IsUsed(Node a_node)
    {
        uint64_t u64Used;
        std::memcpy(&u64Used, a_node + g_u32NodeUsed, sizeof u64Used);
        return u64Used != 0;
    }
    static void SetUsed(Node a_node)
    {
        const uint64_t u64Used = 1;
        std::memcpy(a_node + g_u32NodeUsed, &u64Used, sizeof u64Used);
    }

    Node NodeAt(size_t a_sizetNode) const;
    size_t IndexOf(Node a_node) const;
    size_t Capacity() const { return static_cast<size_t>(ChunkCount()) * m_u32NodesPerChunk; }
    size_t ChunkBytes() const { return static_cast<size_t>(m_u32NodeSize) * m_u32NodesPerChunk; }
    Node FindFree();
    bool Grow();
    void Link(Node a_node, const void* a_pvAfterItem, bool a_blNewHead);
    void RemoveAll();
    void RemoveEqual(const void* a_pvItem);
    void Unlink(Node a_nodeBefore, Node a_node);
    bool IsChunkFree(uint32_t a_u32Chunk) const;
    void Shrink();

    // Compares the items' bytes; -999 when either is null.
    static int Compare(const void* a_pvLeft, const void* a_pvRight, uint32_t a_u32Size);

    uint32_t m_u32ItemSize = 0;
    uint32_t m_u32NodeSize = 0;
    uint32_t m_u32NodesPerChunk = 0;
    Node m_nodeHead = nullptr;
    std::atomic<uint32_t> m_u32Chunks = 0;
    std::atomic<int32_t> m_i32Count = 0;
    char** m_apcChunk = nullptr;   // the chunks, terminated by a null entry
    uint64_t m_u64Lock = 0;
    OsLnkHolder m_oslnkholder = {};

    Node m_nodeTail = nullptr;
    size_t m_sizetFirstFree = 0;   // all nodes below are used, counted through all chunks
};

// ------------------------------------------------------------------------------------------------------- geometry

COsLnkImpl::COsLnkImpl(uint32_t a_u32ItemSize, uint32_t a_u32NodesPerChunk)
{
    const bool blUsable =
        a_u32ItemSize != 0 && a_u32ItemSize <= UINT32_MAX - g_u32NodeHeader && a_u32NodesPerChunk != 0;
    if (!blUsable)
    {
        OSLOG(OS_LOG_CHECK, "size is == 0, or chunk is < 32, or we didn't get a compare function...");
        return;
    }
    m_u32ItemSize = a_u32ItemSize;
    m_u32NodeSize = a_u32ItemSize + g_u32NodeHeader;
    m_u32NodesPerChunk = a_u32NodesPerChunk;
}

COsLnkImpl::~COsLnkImpl()
{
    const COsSpinGuard guard(&m_u64Lock);
    for (uint32_t u32Chunk = 0; u32Chunk < m_u32Chunks; u32Chunk++)
        OSMEMFREE(m_apcChunk[u32Chunk], OS_MEMFLAG_BLOCK);
    if (m_apcChunk)
        OSMEMFREE(m_apcChunk, OS_MEMFLAG_BLOCK);
}

// ---------------------------------------------------------------------------------------------------------- nodes

COsLnkImpl::Node COsLnkImpl::NodeAt(size_t a_sizetNode) const
{
    return m_apcChunk[a_sizetNode / m_u32NodesPerChunk] + a_sizetNode % m_u32NodesPerChunk * m_u32NodeSize;
}

size_t COsLnkImpl::IndexOf(Node a_node) const
{
    const std::less<> less;
    uint32_t u32Chunk = 0;
    while (less(a_node, m_apcChunk[u32Chunk]) || !less(a_node, m_apcChunk[u32Chunk] + ChunkBytes()))
        u32Chunk++;
    const size_t sizetSlot = static_cast<size_t>(a_node - m_apcChunk[u32Chunk]) / m_u32NodeSize;
    return static_cast<size_t>(u32Chunk) * m_u32NodesPerChunk + sizetSlot;
}

// The first free node in the order of the chunks.
COsLnkImpl::Node COsLnkImpl::FindFree()
{
    const size_t sizetCapacity = Capacity();
    while (m_sizetFirstFree < sizetCapacity && IsUsed(NodeAt(m_sizetFirstFree)))
        m_sizetFirstFree++;
    return m_sizetFirstFree < sizetCapacity ? NodeAt(m_sizetFirstFree) : nullptr;
}

int COsLnkImpl::Compare(const void* a_pvLeft, const void* a_pvRight, uint32_t a_u32Size)
{
    return a_pvLeft && a_pvRight ? std::memcmp(a_pvLeft, a_pvRight, a_u32Size) : -999;
}

// -------------------------------------------------------------------------------------------------------- growing

static char** AllocChunkTable(uint32_t a_u32Chunks)
{
    return static_cast<char**>(OSMEMALLOC((static_cast<size_t>(a_u32Chunks) + 1) * sizeof(char*), OS_MEMFLAG_BLOCK));
}

// Adds one chunk. Without memory nothing changes.
bool COsLnkImpl::Grow()
{
    const uint32_t u32Chunks = m_u32Chunks;
    char** const apcChunk = OsMemExists() ? AllocChunkTable(u32Chunks + 1) : nullptr;
    char* const pcChunk = apcChunk ? static_cast<char*>(OSMEMALLOC(ChunkBytes(), OS_MEMFLAG_BLOCK)) : nullptr;
    if (!pcChunk)
    {
        OSLOG(OS_LOG_CHECK, "OsMemAlloc failed...");
        if (apcChunk)
            OSMEMFREE(apcChunk, OS_MEMFLAG_BLOCK);
        return false;
    }
    std::copy_n(m_apcChunk, u32Chunks, apcChunk);
    apcChunk[u32Chunks] = pcChunk;
    if (m_apcChunk)
        OSMEMFREE(m_apcChunk, OS_MEMFLAG_BLOCK);
    m_apcChunk = apcChunk;
    m_u32Chunks = u32Chunks + 1;
    return true;
}

// --------------------------------------------------------------------------------------------------------- adding

void* COsLnkImpl::AddAndLock(const void* a_pvItem, const void* a_pvAfterItem, bool a_blLock, bool a_blNewHead)
{
    const bool blTail = !a_pvAfterItem && !a_blNewHead;
    if (blTail && a_blLock)
        SpinLockAcquire(&m_u64Lock);
    if (!blTail && !SpinLockIsTaken(&m_u64Lock))
        OSLOG(OS_LOG_ERROR, "AddAndLock: a_pvAfterItem or a_blNewHead set on an unlocked list!!!");
    if (m_u32NodeSize == 0)
        return nullptr;

    Node node = FindFree();
    if (!node && Grow())
        node = FindFree();
    if (!node)
        return nullptr;

    if (a_pvItem)
        std::memcpy(ItemOf(node), a_pvItem, m_u32ItemSize);
    SetNext(node, nullptr);
    SetUsed(node);
    Link(node, a_pvAfterItem, a_blNewHead);
    m_i32Count++;
    return ItemOf(node);
}

void COsLnkImpl::Link(Node a_node, const void* a_pvAfterItem, bool a_blNewHead)
{
    if (!m_nodeHead || a_blNewHead)
    {
        SetNext(a_node, m_nodeHead);
        if (!m_nodeHead)
            m_nodeTail = a_node;
        m_nodeHead = a_node;
        return;
    }
    Node nodeBefore = a_pvAfterItem ? m_nodeHead : m_nodeTail;
    while (nodeBefore != m_nodeTail && ItemOf(nodeBefore) != a_pvAfterItem)
        nodeBefore = Next(nodeBefore);
    SetNext(a_node, Next(nodeBefore));
    SetNext(nodeBefore, a_node);
    if (nodeBefore == m_nodeTail)
        m_nodeTail = a_node;
}

bool COsLnkImpl::Add(const void* a_pvItem)
{
    const bool blStored = AddAndLock(a_pvItem, nullptr, true, false) != nullptr;
    SpinLockRelease(&m_u64Lock);
    return blStored;
}

// -------------------------------------------------------------------------------------------------------- walking

void* COsLnkImpl::GetFirstAndLock(const char* a_szFunction, const char* a_szFile, uint32_t a_u32Line)
{
    SpinLockAcquire(&m_u64Lock);
    if (!m_nodeHead)
        return nullptr;
    SStrCpy(m_oslnkholder.szFunction, sizeof m_oslnkholder.szFunction, a_szFunction ? a_szFunction : "");
    SStrCpy(m_oslnkholder.szFile, sizeof m_oslnkholder.szFile, a_szFile ? a_szFile : "");
    m_oslnkholder.u32Line = a_u32Line;
    m_oslnkholder.u64ThreadId = PlatThreadId();
    return ItemOf(m_nodeHead);
}

void COsLnkImpl::Unlock()
{
    m_oslnkholder.szFunction[0] = '\0';
    m_oslnkholder.szFile[0] = '\0';
    m_oslnkholder.u32Line = 0;
    m_oslnkholder.u64ThreadId = 0;
    SpinLockRelease(&m_u64Lock);
}

// ------------------------------------------------------------------------------------------------------- removing

void COsLnkImpl::Remove(const void* a_pvItem, bool a_blAll, bool a_blLock)
{
    if (a_blLock)
        SpinLockAcquire(&m_u64Lock);
    if (m_apcChunk)
        a_blAll ? RemoveAll() : RemoveEqual(a_pvItem);
    if (a_blLock)
        SpinLockRelease(&m_u64Lock);
}

void COsLnkImpl::RemoveAll()
{
    for (uint32_t u32Chunk = 0; u32Chunk < m_u32Chunks; u32Chunk++)
        std::memset(m_apcChunk[u32Chunk], 0, ChunkBytes());
    m_nodeHead = nullptr;
    m_nodeTail = nullptr;
    m_i32Count = 0;
    m_sizetFirstFree = 0;
}

void COsLnkImpl::RemoveEqual(const void* a_pvItem)
{
    Node nodeBefore = nullptr;
    Node node = m_nodeHead;
    while (node && Compare(ItemOf(node), a_pvItem, m_u32ItemSize) != 0)
    {
        nodeBefore = node;
        node = Next(node);
    }
    if (!node)
        return;

    Unlink(nodeBefore, node);
    std::memset(node, 0, m_u32NodeSize);
    m_sizetFirstFree = std::min(m_sizetFirstFree, IndexOf(node));
    m_i32Count--;
    Shrink();
}

void COsLnkImpl::Unlink(Node a_nodeBefore, Node a_node)
{
    if (a_node == m_nodeHead)
        m_nodeHead = Next(a_node);
    if (a_nodeBefore)
        SetNext(a_nodeBefore, Next(a_node));
    if (a_node == m_nodeTail)
        m_nodeTail = a_nodeBefore;
}

bool COsLnkImpl::IsChunkFree(uint32_t a_u32Chunk) const
{
    Node node = m_apcChunk[a_u32Chunk];
    const Node nodeEnd = node + ChunkBytes();
    while (node != nodeEnd && !IsUsed(node))
        node += m_u32NodeSize;
    return node == nodeEnd;
}

// Frees the first chunk without items, if the others still have a few free nodes.
void COsLnkImpl::Shrink()
{
    static constexpr size_t sizetReserve = 3;
    const uint32_t u32Chunks = m_u32Chunks;
    const size_t sizetFree = Capacity() - static_cast<size_t>(Count());
    if (u32Chunks < 2 || sizetFree < m_u32NodesPerChunk + sizetReserve)
        return;

    uint32_t u32Empty = 0;
    while (u32Empty < u32Chunks && !IsChunkFree(u32Empty))
        u32Empty++;
    if (u32Empty == u32Chunks)
        return;

    char** const apcChunk = AllocChunkTable(u32Chunks - 1);
    if (!apcChunk)
    {
        OSLOG(OS_LOG_ERROR, "OsMemAlloc failed...");
        return;
    }
    std::copy_n(m_apcChunk, u32Empty, apcChunk);
    std::copy(m_apcChunk + u32Empty + 1, m_apcChunk + u32Chunks, apcChunk + u32Empty);
    char* const pcChunk = m_apcChunk[u32Empty];
    OSMEMFREE(m_apcChunk, OS_MEMFLAG_BLOCK);
    OSMEMFREE(pcChunk, OS_MEMFLAG_BLOCK);
    m_apcChunk = apcChunk;
    m_u32Chunks = u32Chunks - 1;
}

// ---------------------------------------------------------------------------------------------- the public object

static bool Usable(const COsLnkImpl* a_poslnkimpl)
{
    if (!a_poslnkimpl)
        OSLOG(OS_LOG_CHECK, "m_poslnkimpl is null...");
    return a_poslnkimpl != nullptr;
}

COsLnk::COsLnk(uint32_t a_u32ItemSize, uint32_t a_u32NodesPerChunk)
    : m_poslnkimpl(OSMEMNEW(COsLnkImpl, a_u32ItemSize, a_u32NodesPerChunk))
{
}

COsLnk::~COsLnk()
{
    OSMEMDELETE(m_poslnkimpl);
}

bool COsLnk::Add(const void* a_pvItem)
{
    return Usable(m_poslnkimpl) && m_poslnkimpl->Add(a_pvItem);
}

void* COsLnk::AddAndLock(const void* a_pvItem, const void* a_pvAfterItem, bool a_blLock, bool a_blNewHead)
{
    return Usable(m_poslnkimpl) ? m_poslnkimpl->AddAndLock(a_pvItem, a_pvAfterItem, a_blLock, a_blNewHead) : nullptr;
}

void* COsLnk::GetFirstAndLock(const char* a_szFunction, const char* a_szFile, uint32_t a_u32Line)
{
    return Usable(m_poslnkimpl) ? m_poslnkimpl->GetFirstAndLock(a_szFunction, a_szFile, a_u32Line) : nullptr;
}

void* COsLnk::GetNext(const void* a_pvItem)
{
    return Usable(m_poslnkimpl) && a_pvItem ? COsLnkImpl::ItemOf(COsLnkImpl::Next(COsLnkImpl::NodeOf(a_pvItem)))
                                            : nullptr;
}

void COsLnk::Unlock()
{
    if (Usable(m_poslnkimpl))
        m_poslnkimpl->Unlock();
}

OsLnkHolder COsLnk::Holder() const
{
    return Usable(m_poslnkimpl) ? m_poslnkimpl->Holder() : OsLnkHolder{};
}

void COsLnk::Remove(const void* a_pvItem, bool a_blAll, bool a_blLock)
{
    if (Usable(m_poslnkimpl))
        m_poslnkimpl->Remove(a_pvItem, a_blAll, a_blLock);
}

int32_t COsLnk::Count() const
{
    return Usable(m_poslnkimpl) ? m_poslnkimpl->Count() : 0;
}

uint32_t COsLnk::ChunkCount() const
{
    return Usable(m_poslnkimpl) ? m_poslnkimpl->ChunkCount() : 0;
}
