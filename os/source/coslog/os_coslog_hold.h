// os_coslog_hold.h: the logger's hold of the log folder that its file lies in, which keeps others from deleting it.
//
// A hold that could not be had, because somebody is deleting the folder just now or because there is none yet, is tried
// again when a line is logged, at most once a second.
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

    // Holds the log folder of a_szLogFile from now on; of a path in none, lets go.
    void Move(const char* a_szLogFile);

    // As Move for a path in a log folder; otherwise what is held stays.
    void MoveIntoLogFolder(const char* a_szLogFile);

    // The folder was removed and made again: what is held is not its lock any more. The next line takes that.
    void Renew();

    // In a fork, which holds with its parent what that holds: the folder is free when both have let go.
    void LeaveToParent() { m_osloglock.Release(); }

    // True while a folder is to be held and is not. Asked with every line.
    bool IsWanted() const { return m_blWanted.load(std::memory_order_relaxed); }

    // Makes the folder if it has gone, and tries again if it is time and no other thread does.
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
