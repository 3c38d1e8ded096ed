// os_coslogcollector_folders.h: the log folders that a collector's streams write to: their locks, and pruning the first
// one.
#pragma once

#include "os_coslogfolder.h"

#include <memory>
#include <mutex>
#include <vector>

class COsThread;

// All operations are thread-safe. Folders are log folders, as returned by OsLogFolderOf.
class COsLogCollectorFolders
{
public:
    COsLogCollectorFolders() = default;
    ~COsLogCollectorFolders();
    COsLogCollectorFolders(const COsLogCollectorFolders&) = delete;
    COsLogCollectorFolders& operator=(const COsLogCollectorFolders&) = delete;

    // Adds a stream to an existing folder, or removes it. The first stream takes the lock, and its status is returned;
    // the stream is counted even on failure. The last one releases the lock. The first log folder of the process is
    // pruned, unless another process holds it and therefore prunes it.
    EOSSTS Enter(const char* a_szFolder);
    void Leave(const char* a_szFolder);

    // Retries a lock that failed before, or takes that of a folder that was created again.
    EOSSTS Hold(const char* a_szFolder);

    // The first log folder that streams of this process used, if they came through this object, else "".
    const char* Leftover() const { return m_szLeftover; }   // once all streams have ended

    // Ends pruning, once all streams have ended.
    void StopManaging();

private:
    struct Entry
    {
        char szFolder[OS_PATHSIZE];
        uint32_t u32Streams;
        COsLogFolderLock oslogfolderlock;
    };

    Entry* Find(const char* a_szFolder);
    void BeginManaging(const char* a_szFolder, bool a_blHeldByOthers);

    std::mutex m_mutex;
    std::vector<std::unique_ptr<Entry>> m_vecuniqueEntry;
    char m_szLeftover[OS_PATHSIZE] = {};
    COsThread* m_posthreadManage = nullptr;
};
