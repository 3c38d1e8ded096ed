// os_coslogstatus_own.cpp: creating, mapping, changing and removing this process's status file.
#include "os_coslogstatus_own.h"

#include "os_cosarguments.h"
#include "os_cosfile_system.h"
#include "os_cospath.h"
#include "os_cosstring.h"
#include "os_scope.h"

#include "plat_file.h"
#include "plat_process.h"
#include "plat_system.h"

#include <algorithm>
#include <cstring>
#include <string_view>
#include <type_traits>

namespace
{
// Restores the thread's last error, which log lines contain.
class KeepError
{
public:
    KeepError() = default;
    ~KeepError() { PlatSetLastError(m_u32Error); }
    KeepError(const KeepError&) = delete;
    KeepError& operator=(const KeepError&) = delete;

private:
    uint32_t m_u32Error = PlatGetLastError();
};
}   // namespace

constinit OsLogStatusRecord COsLogStatusOwn::m_oslogstatusrecordNone = {};

// Constant-initialized and never destroyed: threads may log before and after the lifetime of static objects.
constinit COsLogStatusOwn COsLogStatusOwn::m_oslogstatusown;
static_assert(std::is_trivially_destructible_v<COsLogStatusOwn>);

// ------------------------------------------------------------------------------------------------------- the file

void COsLogStatusOwn::Fill(OsLogStatusRecord& a_oslogstatusrecord, const char* a_szName)
{
    std::memcpy(a_oslogstatusrecord.achMagic, OS_LOGSTATUS_MAGIC, sizeof OS_LOGSTATUS_MAGIC);
    a_oslogstatusrecord.u32Version = OS_LOGSTATUS_VERSION;
    a_oslogstatusrecord.u32Size = sizeof(OsLogStatusRecord);
    a_oslogstatusrecord.u64ProcessId = PlatProcessId();
    PlatProcessStartTime(a_oslogstatusrecord.u64ProcessId, &a_oslogstatusrecord.u64StartTime);
    a_oslogstatusrecord.u64Since = PlatClock();
    OsArgumentsProgramPath(a_oslogstatusrecord.szProgram);
    SStrCpy(a_oslogstatusrecord.szName, sizeof a_oslogstatusrecord.szName, a_szName ? a_szName : "");
}

// Replaces a file that an earlier process with this id left.
static PlatHandle OpenFile(const char16_t* a_wszPath)
{
    return PlatFileOpen(a_wszPath, PLAT_ACCESS_READ | PLAT_ACCESS_WRITE,
                        PLAT_SHARE_READ | PLAT_SHARE_WRITE | PLAT_SHARE_DELETE, PLAT_DISPOSITION_CREATEALWAYS,
                        PLAT_OPEN_OWNPLACE | PLAT_OPEN_PRIVATE);
}

// Creates the folder only when it is missing.
static PlatHandle OpenFileAndFolder(const char16_t* a_wszPath)
{
    const PlatHandle plathandle = OpenFile(a_wszPath);
    if (plathandle != PLAT_INVALID)
        return plathandle;
    const std::u16string_view strview(a_wszPath);
    char16_t wszFolder[OS_WIDEPATHSIZE] = {};
    strview.copy(wszFolder, std::min(strview.find_last_of(u'\\'), OS_WIDEPATHSIZE - 1));
    return PlatFolderCreatePrivate(wszFolder) ? OpenFile(a_wszPath) : PLAT_INVALID;
}

// Writes the file before it is mapped: a full disk refuses the write, so that the mapped pages are backed.
static PlatHandle WriteFile(const char16_t* a_wszPath, const OsLogStatusRecord& a_oslogstatusrecord)
{
    alignas(OsLogStatusRecord) char achFile[OS_LOGSTATUS_FILESIZE] = {};
    std::memcpy(achFile, static_cast<const void*>(&a_oslogstatusrecord), sizeof a_oslogstatusrecord);
    const PlatHandle plathandle = OpenFileAndFolder(a_wszPath);
    if (plathandle == PLAT_INVALID || PlatFileWrite(plathandle, achFile, sizeof achFile, nullptr))
        return plathandle;
    PlatClose(plathandle);
    PlatFileDelete(a_wszPath);
    return PLAT_INVALID;
}

// The view of a previous file is released only now, because a thread may still have been using it.
bool COsLogStatusOwn::Map(const OsLogStatusRecord& a_oslogstatusrecord)
{
    const PlatHandle plathandle = WriteFile(m_wszPath, a_oslogstatusrecord);
    if (plathandle == PLAT_INVALID)
        return false;
    const ScopeGuard close([plathandle] { PlatClose(plathandle); });
    size_t sizetView = OS_LOGSTATUS_FILESIZE;
    void* const pvView = PlatMappingView(plathandle, 0, true, &sizetView);
    if (!pvView)
        return false;
    if (m_pvView)
        PlatMappingRelease(m_pvView, m_sizetView);
    PlatMappingKeep(pvView, sizetView);
    m_pvView = pvView;
    m_sizetView = sizetView;
    m_poslogstatusrecord.store(static_cast<OsLogStatusRecord*>(pvView), std::memory_order_release);
    return true;
}

bool COsLogStatusOwn::Make(const char* a_szName)
{
    char szPath[OS_PATHSIZE];
    OsLogStatusPath(szPath, PlatProcessId());
    if (!*szPath || !OsPathToSystem(m_wszPath, OS_WIDEPATHSIZE, szPath))
        return false;
    OsLogStatusRecord oslogstatusrecord = {};
    Fill(oslogstatusrecord, a_szName);
    return Map(oslogstatusrecord);
}

// A forked child has an empty record of its own, and no file, until this is called.
void COsLogStatusOwn::Open(uint32_t a_u32Kind, const char* a_szName)
{
    const std::lock_guard<std::mutex> guard(m_mutex);
    const KeepError keeperror;
    if (m_u64ProcessId != PlatProcessId() && !Make(a_szName))
        return;
    m_u64ProcessId = PlatProcessId();
    Record().u32Kind |= a_u32Kind;
    if (a_szName && *a_szName)
    {
        ChangeTexts([&](OsLogStatusRecord& a_oslogstatusrecord) {
            SStrCpy(a_oslogstatusrecord.szName, sizeof a_oslogstatusrecord.szName, a_szName);
        });
    }
}

void COsLogStatusOwn::Close(uint32_t a_u32Kind)
{
    const std::lock_guard<std::mutex> guard(m_mutex);
    const KeepError keeperror;
    if (m_u64ProcessId != PlatProcessId())
        return;
    if ((Record().u32Kind &= ~a_u32Kind) != 0)
        return;
    PlatFileDelete(m_wszPath);
    m_u64ProcessId = 0;
    m_poslogstatusrecord.store(&m_oslogstatusrecordNone, std::memory_order_release);
}

// --------------------------------------------------------------------------------------------------------- content

void COsLogStatusOwn::PutCollector(int32_t a_i32Port, uint64_t a_u64ProcessIdApplication)
{
    OsLogStatusRecord& oslogstatusrecord = Record();
    oslogstatusrecord.i32Port.store(a_i32Port, std::memory_order_relaxed);
    oslogstatusrecord.u64ProcessIdApplication.store(a_u64ProcessIdApplication, std::memory_order_relaxed);
}

// Never waits: a signal handler that logs may have interrupted a change.
template <class Change>
bool COsLogStatusOwn::ChangeTexts(Change a_change)
{
    if (m_atomicflagTexts.test_and_set(std::memory_order_acquire))
        return false;
    OsLogStatusRecord& oslogstatusrecord = Record();
    oslogstatusrecord.u32Turn.fetch_add(1);
    a_change(oslogstatusrecord);
    oslogstatusrecord.u32Turn.fetch_add(1, std::memory_order_release);
    m_atomicflagTexts.clear(std::memory_order_release);
    return true;
}

void COsLogStatusOwn::PutLogFile(const char* a_szLogFile)
{
    ChangeTexts([&](OsLogStatusRecord& a_oslogstatusrecord) {
        SStrCpy(a_oslogstatusrecord.szLogFile, sizeof a_oslogstatusrecord.szLogFile, a_szLogFile);
    });
}

void COsLogStatusOwn::PutError(uint32_t a_u32Error, uint64_t a_u64Time, const char* a_szPath)
{
    ChangeTexts([&](OsLogStatusRecord& a_oslogstatusrecord) {
        a_oslogstatusrecord.u32LastError = a_u32Error;
        a_oslogstatusrecord.u64LastErrorTime = a_u64Time;
        SStrCpy(a_oslogstatusrecord.szLastErrorPath, sizeof a_oslogstatusrecord.szLastErrorPath, a_szPath);
    });
}
