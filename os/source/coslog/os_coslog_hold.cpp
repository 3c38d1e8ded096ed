// os_coslog_hold.cpp: taking and moving the hold, retries.
#include "os_coslog_hold.h"

#include "os_cosfile_system.h"
#include "os_cosstring.h"

#include "plat_system.h"

#include <cstring>

static constexpr uint64_t g_u64TryAgain = 1000;   // ms

void COsLogHold::Move(const char* a_szLogFile)
{
    char szFolder[OS_PATHSIZE];
    OsLogFolderOf(a_szLogFile, szFolder);
    Want(szFolder);
}

void COsLogHold::MoveIntoLogFolder(const char* a_szLogFile)
{
    char szFolder[OS_PATHSIZE];
    if (OsLogFolderOf(a_szLogFile, szFolder))
        Want(szFolder);
}

void COsLogHold::Renew()
{
    const OsLogGuard oslogguard(m_osloglock, 0);
    if (!oslogguard.Held() || !m_szFolder[0])
        return;
    m_u64TryAgain = 0;
    m_blWanted = true;
}

// A missing folder is not created here: perhaps no line will ever be written there.
void COsLogHold::Want(const char* a_szFolder)
{
    const OsLogGuard oslogguard(m_osloglock);
    const bool blSame = std::strcmp(m_szFolder, a_szFolder) == 0;
    if (!oslogguard.Held() || (blSame && !IsWanted()))
        return;
    m_oslogfolderlock.Release();
    SStrCpy(m_szFolder, sizeof m_szFolder, a_szFolder);
    m_u64TryAgain = 0;
    m_blWanted = m_szFolder[0] != 0;
    if (IsWanted() && OsFileExists(m_szFolder))
        Acquire();
}

void COsLogHold::TryAgain()
{
    const OsLogGuard oslogguard(m_osloglock, 0);
    if (!oslogguard.Held() || !IsWanted() || PlatTicks() < m_u64TryAgain)
        return;
    OsFileCreateDirectory(m_szFolder);
    Acquire();
}

void COsLogHold::Acquire()
{
    m_blWanted = m_oslogfolderlock.Acquire(m_szFolder) != EOSSTS_SUCCESS;
    m_u64TryAgain = PlatTicks() + g_u64TryAgain;
}
