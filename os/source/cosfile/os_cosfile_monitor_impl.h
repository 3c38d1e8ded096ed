// os_cosfile_monitor_impl.h: the directory monitor of a file object.
//
// A monitor is an object of its own from one start to its stop. It is reference-counted by the file object and the
// monitor's threads: a callback may stop the monitor or free the file object, and the thread still ends safely.
#pragma once

#include "os_cosfile_impl.h"
#include "os_coslnk.h"
#include "os_costhread.h"

#include "plat_watch.h"

#include <atomic>
#include <memory>

// The state of a watched name at one moment.
struct OsFileLook
{
    bool blThere = false;
    PlatFileIdentity platfileidentity{};

    bool operator==(const OsFileLook& a_look) const
    {
        const PlatFileIdentity& platfileidentityTheirs = a_look.platfileidentity;
        return blThere == a_look.blThere && platfileidentity.u64Volume == platfileidentityTheirs.u64Volume &&
               platfileidentity.u64Index == platfileidentityTheirs.u64Index &&
               platfileidentity.u64Size == platfileidentityTheirs.u64Size &&
               platfileidentity.u64WriteTime == platfileidentityTheirs.u64WriteTime;
    }
};

class COsFileMonitor final : public COsFileMonitorBase, public std::enable_shared_from_this<COsFileMonitor>
{
public:
    COsFileMonitor(COsFile* a_posfile, const char* a_szPath, const char* a_szName, uint32_t a_u32Mask,
                   OsFileMonitorProc a_osfilemonitorproc, void* a_pvContext);
    ~COsFileMonitor() override;
    COsFileMonitor(const COsFileMonitor&) = delete;
    COsFileMonitor& operator=(const COsFileMonitor&) = delete;

    bool Prepare();
    void CallInitially();
    EOSSTS Launch();
    bool Stop() override;
    bool IsStopped() const override { return m_blStop; }
    const OsFileMonitorState& State() const override { return m_osfilemonitorstate; }

private:
    bool IsRunning() const { return !m_blStop && m_posthreadMonitor->StopState() == 1; }
    static bool StopThread(COsThread* a_posthread, const char* a_szWhich, int32_t a_i32Timeout);
    bool LockRecord();
    template <class Fill>
    uint32_t Call(Fill a_fill);

    bool Report(uint32_t a_u32Event);
    void ReportUnreadable(const char* a_szFailed);

    // The monitor thread.
    static uint32_t MonitorEntry(COsThread* a_posthread);
    void Monitor();
    bool StartEvents();

    // Change detection; os_cosfile_monitor_watch.cpp.
    bool Examine(OsFileLook* a_plook) const;
    void TakeBaseline();
    bool IsChanged(const OsFileLook& a_look);
    void LookIn(uint32_t a_u32Milliseconds);
    void Rest();
    void LookedInVain(const char* a_szFailed);
    void Look();
    void TakeLook(const OsFileLook& a_look, bool a_blSettled);
    bool OpenWatched();
    void CloseWatched();
    void OpenFolder();
    void CloseFolder();
    void Note(uint32_t a_u32Event, bool a_blOurs, bool a_blWriting);
    void TakeChange(const PlatWatchChange& a_platwatchchange);
    void TakeChanges();
    void Watch();

    // The events thread.
    static uint32_t EventsEntry(COsThread* a_posthread);
    uint32_t Events(COsThread* a_posthread);
    bool TakeQueued(OsFileMonitorRecord* a_posfilemonitorrecord);

    // The monitor thread that is running this code; null on other threads.
    inline static thread_local const COsThread* t_posthread = nullptr;

    COsFile* m_posfile;   // only for the callback
    OsFileMonitorProc m_osfilemonitorproc;
    uint32_t m_u32Mask;
    OsFileMonitorState m_osfilemonitorstate{};
    uint64_t m_u64RecordLock = 0;    // guards the record, and so is held during each callback
    char m_szSplit[OS_PATHSIZE]{};   // the watched path, normalised, with a zero between folder and name
    const char* m_szFolder = "";
    const char* m_szEntry = "";
    OsFileLook m_look;          // state at the last report, or at the start
    bool m_blKnown = false;     // false until a check has found the file
    bool m_blVouched = false;   // m_look had settled; if not, the next check must not be compared with it
    uint64_t m_u64Started = 0;
    OsFileLook m_lookCandidate;   // the last state, of a change that has not settled yet
    bool m_blCandidate = false;
    uint32_t m_u32Event = 0;   // the event to report for a change; 0: no check is due

    // Times from PlatTicks.
    uint64_t m_u64LookAt = UINT64_MAX;
    uint64_t m_u64SettleLimit = 0;
    uint64_t m_u64WriterLimit = 0;   // the file is being written; checked at this time at the latest
    uint64_t m_u64InVainSince = 0;
    uint64_t m_u64FolderAt = 0;   // when to retry notifications
    bool m_blByTime = false;
    bool m_blFirstChange = true;

    std::atomic<bool> m_blStop{false};
    PlatHandle m_plathandleStop = PLAT_INVALID;
    PlatHandle m_plathandleFolder = PLAT_INVALID;
    PlatHandle m_plathandleWatched = PLAT_INVALID;
    COsThread* m_posthreadMonitor = nullptr;
    COsThread* m_posthreadEvents = nullptr;
    COsLnk* m_poslnkQueue = nullptr;   // items: OsFileMonitorRecord
};
