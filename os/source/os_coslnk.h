// os_coslnk.h: a locked list of fixed-size records.
//
// Items are copied in. Callers get pointers to the stored copies, which stay valid until they are removed.
#pragma once

#include "os_types.h"

class COsLnkImpl;

// The holder of a list's lock, as passed to GetFirstAndLock; empty if none was passed.
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
    // Item size in bytes and nodes per chunk; if either is 0, nothing can be added.
    COsLnk(uint32_t a_u32ItemSize, uint32_t a_u32NodesPerChunk);
    ~COsLnk();
    COsLnk(const COsLnk&) = delete;
    COsLnk& operator=(const COsLnk&) = delete;

    // Appends a copy, taking and releasing the lock itself. True when it was stored.
    bool Add(const void* a_pvItem);

    // Stores a copy (null: the contents are left unset) and returns it, or null. Appends at the tail; or inserts after
    // a_pvAfterItem, or, with a_blNewHead, in front: the caller must hold the lock for these two. With a_blLock a tail
    // append takes the lock and returns holding it.
    void* AddAndLock(const void* a_pvItem, const void* a_pvAfterItem, bool a_blLock, bool a_blNewHead);

    // Takes the lock, records its holder, and returns the first item or null. The lock is held until Unlock.
    void* GetFirstAndLock(const char* a_szFunction, const char* a_szFile, uint32_t a_u32Line);
    void* GetNext(const void* a_pvItem);   // null at the end; only while the lock is held
    void Unlock();

    // For the thread that holds the lock, and for diagnosing a deadlock: does not take the lock.
    OsLnkHolder Holder() const;

    // Removes the first item that is equal byte by byte, or all of them with a_blAll. a_blLock takes the lock during
    // the call; otherwise the caller must hold it.
    void Remove(const void* a_pvItem, bool a_blAll, bool a_blLock);

    int32_t Count() const;
    uint32_t ChunkCount() const;

private:
    COsLnkImpl* m_poslnkimpl;   // null only when its allocation failed
};
