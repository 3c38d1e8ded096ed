// os_coslogcollector_folders.cpp: the log folders that a collector's streams write to.
#include "os_coslogcollector_folders.h"

#include "os_cfg.h"
#include "os_cosstring.h"
#include "os_costhread.h"
#include "os_new.h"

#include <algorithm>
#include <cstring>

static constexpr char g_szSource[] = "os/source/os_coslogcollector";

static constexpr uint32_t g_u32ManageTimeout = 1000;

// The log folder that is pruned in this process: set once.
static char g_szManagedFolder[OS_PATHSIZE];
static std::mutex g_mutexManaged;

COsLogCollectorFolders::~COsLogCollectorFolders()
{
    StopManaging();
}

COsLogCollectorFolders::Entry* COsLogCollectorFolders::Find(const char* a_szFolder)
{
    const auto iterator =
        std::find_if(m_vecuniqueEntry.begin(), m_vecuniqueEntry.end(), [a_szFolder](const auto& a_uniqueEntry) {
            return std::strcmp(a_uniqueEntry->szFolder, a_szFolder) == 0;
        });
    return iterator == m_vecuniqueEntry.end() ? nullptr : iterator->get();
}

EOSSTS COsLogCollectorFolders::Enter(const char* a_szFolder)
{
    const std::lock_guard<std::mutex> guard(m_mutex);
    Entry* pentry = Find(a_szFolder);
    if (!pentry)
    {
        BeginManaging(a_szFolder, COsLogFolderLock::IsHeldByOthers(a_szFolder));
        pentry = m_vecuniqueEntry.emplace_back(std::make_unique<Entry>()).get();
        SStrCpy(pentry->szFolder, sizeof pentry->szFolder, a_szFolder);
    }
    ++pentry->u32Streams;
    return pentry->oslogfolderlock.IsHeld() ? EOSSTS_SUCCESS : pentry->oslogfolderlock.Acquire(a_szFolder);
}

EOSSTS COsLogCollectorFolders::Hold(const char* a_szFolder)
{
    const std::lock_guard<std::mutex> guard(m_mutex);
    Entry* const pentry = Find(a_szFolder);
    return pentry ? pentry->oslogfolderlock.Acquire(a_szFolder) : EOSSTS_NOTFOUND;
}

void COsLogCollectorFolders::Leave(const char* a_szFolder)
{
    const std::lock_guard<std::mutex> guard(m_mutex);
    const auto isLast = [a_szFolder](const auto& a_uniqueEntry) {
        return std::strcmp(a_uniqueEntry->szFolder, a_szFolder) == 0 && --a_uniqueEntry->u32Streams == 0;
    };
    std::erase_if(m_vecuniqueEntry, isLast);
}

// --------------------------------------------------------------------------------------------------------- pruning

static uint32_t ManageLogDirectories(COsThread* a_posthread)
{
    OsCfgManageLogDirectories(g_szManagedFolder, a_posthread);
    a_posthread->Exit();
    return 0;
}

void COsLogCollectorFolders::BeginManaging(const char* a_szFolder, bool a_blHeldByOthers)
{
    const std::lock_guard<std::mutex> guard(g_mutexManaged);
    if (*g_szManagedFolder)
        return;
    SStrCpy(g_szManagedFolder, sizeof g_szManagedFolder, a_szFolder);
    SStrCpy(m_szLeftover, sizeof m_szLeftover, a_szFolder);
    if (a_blHeldByOthers)
        return;
    m_posthreadManage = OSMEMNEW(COsThread);
    if (m_posthreadManage)
        m_posthreadManage->Start("ManageLogDirectories", &ManageLogDirectories, nullptr);
}

void COsLogCollectorFolders::StopManaging()
{
    if (m_posthreadManage)
        m_posthreadManage->WaitForEnd(g_u32ManageTimeout);
    OSMEMDELETE(m_posthreadManage);
}
