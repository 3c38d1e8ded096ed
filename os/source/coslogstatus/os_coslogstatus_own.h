// os_coslogstatus_own.h: this process's own status file, into which its logger and its collector write.
#pragma once

#include "os_coslogstatus_record.h"
#include "os_cospath.h"

#include <atomic>
#include <mutex>

// One object per process. Values are stored only in the file's record: without a file they are lost.
class COsLogStatusOwn
{
public:
    static COsLogStatusOwn& Get() { return m_oslogstatusown; }

    // Creates the file if this process has none. a_szName may be null. Any thread.
    void Open(uint32_t a_u32Kind, const char* a_szName);

    // Removes the kind; the file is removed with the last one.
    void Close(uint32_t a_u32Kind);

    void PutCollector(int32_t a_i32Port, uint64_t a_u64ProcessIdApplication);
    void PutLogFile(const char* a_szLogFile);
    void PutError(uint32_t a_u32Error, uint64_t a_u64Time, const char* a_szPath);

    // The requested flags, read at each log call; 0 without a file, and when the file was truncated.
    uint64_t Wish() const { return Record().u64Wish.load(std::memory_order_relaxed); }

    // The mapped record, or a dummy.
    OsLogStatusRecord& Record() const { return *m_poslogstatusrecord.load(std::memory_order_acquire); }

private:
    bool Make(const char* a_szName);
    static void Fill(OsLogStatusRecord& a_oslogstatusrecord, const char* a_szName);
    bool Map(const OsLogStatusRecord& a_oslogstatusrecord);
    template <class Change>
    bool ChangeTexts(Change a_change);

    static OsLogStatusRecord m_oslogstatusrecordNone;
    static COsLogStatusOwn m_oslogstatusown;
    std::mutex m_mutex;
    std::atomic_flag m_atomicflagTexts;
    std::atomic<OsLogStatusRecord*> m_poslogstatusrecord{&m_oslogstatusrecordNone};
    uint64_t m_u64ProcessId = 0;   // owner of the file; after a fork, a parent's file is not ours
    char16_t m_wszPath[OS_WIDEPATHSIZE] = {};
    void* m_pvView = nullptr;   // the last mapping
    size_t m_sizetView = 0;
};
