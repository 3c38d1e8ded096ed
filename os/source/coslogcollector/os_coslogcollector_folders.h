// os_coslogcollector_folders.h: the log folders that a collector's streams go to: who holds them, and who looks after
// the first one.
#pragma once

#include "os_coslogfolder.h"

#include <memory>
#include <mutex>
#include <vector>

class COsThread;

// All operations from any thread. Folders are log folders, as OsLogFolderOf names them.
class COsLogCollectorFolders
{
public:
    COsLogCollectorFolders() = default;
    ~COsLogCollectorFolders();
    COsLogCollectorFolders(const COsLogCollectorFolders&) = delete;
    COsLogCollectorFolders& operator=(const COsLogCollectorFolders&) = delete;

    // A stream comes to a folder that exists, or goes. The first one takes the lock, whose status is returned; the
    // folder counts it in any case, and the last one to go lets go of the lock. The first log folder of the process is
    // looked after, unless somebody else holds it: that is his then.
    EOSSTS Enter(const char* a_szFolder);
    void Leave(const char* a_szFolder);

    // Takes a lock that could not be had, or whose folder was made again.
    EOSSTS Hold(const char* a_szFolder);

    // The first folder that streams of log folders of this process used, if this object began with it, else "".
    const char* Leftover() const { return m_szLeftover; }   // once all streams have ended

    // Ends looking after a folder, when all streams have ended.
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
