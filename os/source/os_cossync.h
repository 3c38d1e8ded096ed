// os_cossync.h: an event that threads and processes use to wake each other.
#pragma once

#include "os_types.h"

class COsSyncImpl;

// Events are auto-reset and start not signalled. Create, open and close in one thread; set and wait in any.
class COsSync
{
public:
    COsSync();
    ~COsSync();   // closes
    COsSync(const COsSync&) = delete;
    COsSync& operator=(const COsSync&) = delete;

    // Creates an unnamed event (a_szName null or empty), a named one, or a named one in a group of up to eight.
    // EOSSTS_SUCCESS, or EOSSTS_FAIL, after which the object can be used again.
    EOSSTS EventCreate(const char* a_szName, const char* a_szGroup);

    // Opens a named event of any process. EOSSTS_NOTFOUND when no such event exists, EOSSTS_FAIL otherwise.
    EOSSTS EventOpen(const char* a_szName);

    EOSSTS EventSet();

    // Waits up to a_u32Timeout ms (OS_INFINITE: no limit) for this event, or for any of its group. a_szName (512
    // bytes, may be null) receives the name of the event that ended the wait. EOSSTS_SUCCESS, EOSSTS_TIMEOUT,
    // EOSSTS_EXITED (the watched process has ended) or EOSSTS_FAIL.
    EOSSTS EventWait(uint32_t a_u32Timeout, char* a_szName);

    // Later waits end when that process ends; 0 removes the watch.
    EOSSTS EventIncludeProcessId(uint64_t a_u64ProcessId);

    // Closes the event and leaves the group; the object can be created or opened again.
    void EventClose();

    // The event's handle for other waits, OS_INVALID if there is none.
    OSHANDLE EventHandle() const;

private:
    COsSyncImpl* m_possyncimpl;   // null only when its allocation failed
};
