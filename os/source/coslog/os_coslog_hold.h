// os_coslog_hold.h: the logger's hold of its log folder, which prevents other processes from deleting the folder.
//
// When the hold cannot be taken, because the folder is being deleted or does not exist yet, it is retried when a line
// is logged, at most once a second.
#pragma once

#include "os_coslog_lock.h"
#include "os_coslogfolder.h"

#include <atomic>

class COsLogHold
{
public:
    COsLogHold() = default;
    COsLogHold(const COsLogHold&) = delete;
    COsLogHold& operator=(const COsLogHold&) = delete;

    // Holds the log folder of a_szLogFile from now on; releases the hold when the path is in none.
    void Move(const char* a_szLogFile);

    // As Move for a path in a log folder; otherwise keeps the current hold.
    void MoveIntoLogFolder(const char* a_szLogFile);

    // The folder was removed and created again, so the lock is stale. The next line takes the new one.
    void Renew();

    // In a forked child, which shares the parent's hold: the folder is free when both have released it.
    void LeaveToParent() { m_osloglock.Release(); }

    // True while a folder should be held and is not. Checked with every line.
    bool IsWanted() const { return m_blWanted.load(std::memory_order_relaxed); }

    // Creates the folder if it is missing and retries, if a retry is due and no other thread is doing it.
    void TryAgain();

private:
    void Want(const char* a_szFolder);
    void Acquire();

    OsLogLock m_osloglock;
    COsLogFolderLock m_oslogfolderlock;
    char m_szFolder[OS_PATHSIZE] = {};   // "" for none
    std::atomic<bool> m_blWanted{false};
    uint64_t m_u64TryAgain = 0;   // ticks
};
