// os_coslnk.h: a locked list of fixed-size records.
//
// Items are copied in; callers get pointers to the stored copies, which stay where they are until they are removed.
#pragma once

#include "os_types.h"

class COsLnkImpl;

// Who holds the lock of a list: as GetFirstAndLock was told, or empty.
struct OsLnkHolder
{
    char szFunction[256];
    char szFile[OS_PATHSIZE];
    uint32_t u32Line;
    uint64_t u64ThreadId;
};

class COsLnk
{
public:
    // Item size in bytes and nodes per chunk; with 0 for either the list takes nothing.
    COsLnk(uint32_t a_u32ItemSize, uint32_t a_u32NodesPerChunk);
    ~COsLnk();
    COsLnk(const COsLnk&) = delete;
    COsLnk& operator=(const COsLnk&) = delete;

    // Appends a copy, taking and releasing the lock itself. True when it was stored.
    bool Add(const void* a_pvItem);

    // Stores a copy (null: leaves the contents) and returns it, or null. At the tail; after a_pvAfterItem; or, with
    // a_blNewHead, in front. a_blLock takes the lock for a tail append and returns holding it; the other two are
    // done by the thread that holds it.
    void* AddAndLock(const void* a_pvItem, const void* a_pvAfterItem, bool a_blLock, bool a_blNewHead);

    // Takes the lock, notes who holds it, and returns the first item or null. Held until Unlock.
    void* GetFirstAndLock(const char* a_szFunction, const char* a_szFile, uint32_t a_u32Line);
    void* GetNext(const void* a_pvItem);   // null at the end; only while the lock is held
    void Unlock();

    // For the thread that holds the lock, and for whoever looks at a list that is stuck: it takes no lock.
    OsLnkHolder Holder() const;

    // Removes the first item that is equal byte by byte, or with a_blAll every item. a_blLock takes the lock
    // around it; without, the caller holds it.
    void Remove(const void* a_pvItem, bool a_blAll, bool a_blLock);

    int32_t Count() const;
    uint32_t ChunkCount() const;

private:
    COsLnkImpl* m_poslnkimpl;   // null only when its allocation failed
};
