// os_cosfile_tree.cpp: the walk through a tree: position, attributes of an entry, deleting.
#include "os_cosfile_tree.h"

#include "os_coslocale.h"
#include "os_cospath.h"
#include "os_log.h"

#include "plat_tree.h"

#include <cstring>
#include <new>

static constexpr char g_szSource[] = "os/source/os_cosfile";

OsFileTree::~OsFileTree()
{
    if (m_plathandle != PLAT_INVALID)
        PlatClose(m_plathandle);
}

bool OsFileTree::ConvertPath(const char* a_szPath, char16_t* a_wszPath)
{
    OsPathCopy(m_szPath, sizeof m_szPath, a_szPath);
    OsPathRemoveTrailing(m_szPath);
    return m_szPath[0] && OsPathToSystem(a_wszPath, OS_WIDEPATHSIZE, m_szPath);
}

EOSSTS OsFileTree::Open(const char* a_szFolder)
{
    char16_t wszFolder[OS_WIDEPATHSIZE];
    if (!ConvertPath(a_szFolder, wszFolder))
        return EOSSTS_FAIL;
    m_sizetFolder = strlen(m_szPath);
    m_plathandle = PlatTreeOpen(wszFolder);
    return m_plathandle != PLAT_INVALID ? EOSSTS_SUCCESS : EOSSTS_FAIL;
}

EOSSTS OsFileTree::OpenAt(const char* a_szPath)
{
    char16_t wszPath[OS_WIDEPATHSIZE];
    PlatTreeEntry plattreeentry;
    if (!ConvertPath(a_szPath, wszPath))
        return EOSSTS_FAIL;
    m_plathandle = PlatTreeOpenAt(wszPath, &plattreeentry);
    if (m_plathandle == PLAT_INVALID)
    {
        const EOSSTS eossts = OsFileStatus(PlatGetLastError());
        if (eossts != EOSSTS_NOTFOUND)
            OSLOG(OS_LOG_ERROR, "OsFileFindFirst failed...%d", static_cast<int>(eossts));
        return eossts;
    }
    TakeEntry(plattreeentry);
    OsPathSplit(m_szPath, &m_sizetFolder, nullptr);
    return EOSSTS_SUCCESS;
}

// ------------------------------------------------------------------------------------------------ the position

bool OsFileTree::Holds(const char* a_szFolder) const
{
    char16_t wszFolder[OS_WIDEPATHSIZE];
    return !OsPathToSystem(wszFolder, OS_WIDEPATHSIZE, a_szFolder) || PlatTreeHolds(m_plathandle, wszFolder);
}

void OsFileTree::TakeEntry(const PlatTreeEntry& a_plattreeentry)
{
    CopyStringToUtf8(m_szName, sizeof m_szName, a_plattreeentry.wszName, SIZE_MAX);
    m_eosfiletype = static_cast<EOSFILETYPE>(a_plattreeentry.platentry);
    m_blLink = a_plattreeentry.blLink;
}

bool OsFileTree::Next()
{
    PlatTreeEntry plattreeentry;
    if (!PlatTreeNext(m_plathandle, &plattreeentry))
        return false;
    TakeEntry(plattreeentry);
    m_szPath[m_sizetFolder] = '\0';
    const size_t sizetName = strlen(m_szName);
    const size_t sizetSeparator = m_sizetFolder == 0 || m_szPath[m_sizetFolder - 1] == '\\' ? 0 : 1;
    m_blPath = m_blFolderPath && sizetName > 0 && m_sizetFolder + sizetSeparator + sizetName < sizeof m_szPath;
    if (m_blPath)
    {
        m_szPath[m_sizetFolder] = '\\';
        memcpy(m_szPath + m_sizetFolder + sizetSeparator, m_szName, sizetName + 1);
    }
    return true;
}

bool OsFileTree::Enter()
{
    if (!IsFolder())
        return false;
    try
    {
        m_vecoutside.push_back({m_sizetFolder, m_blFolderPath});
    }
    catch (const std::bad_alloc&)
    {
        return false;
    }
    if (!PlatTreeEnter(m_plathandle))
    {
        m_vecoutside.pop_back();
        return false;
    }
    m_sizetFolder = strlen(m_szPath);
    m_blFolderPath = m_blPath;
    return true;
}

void OsFileTree::Leave()
{
    // If this fails, the walk reads no more entries and ends soon.
    PlatTreeLeave(m_plathandle);
    m_szPath[m_sizetFolder] = '\0';
    m_szName[0] = '\0';
    m_blPath = m_blFolderPath;
    m_blLink = false;
    m_eosfiletype = OS_FILETYPE_FOLDER;
    m_sizetFolder = m_vecoutside.back().sizetFolder;
    m_blFolderPath = m_vecoutside.back().blFolderPath;
    m_vecoutside.pop_back();
}

bool OsFileTree::WriteTime(uint64_t* a_pu64WriteTime) const
{
    return PlatTreeWriteTime(m_plathandle, a_pu64WriteTime);
}

// ---------------------------------------------------------------------------------------------------- deleting

void OsFileTellFolderStays(const char* a_szPath)
{
    OSLOG(OS_LOG_NOTE, "RemoveDirectory failed...%s", a_szPath);
}

static void TellFileStays(const char* a_szPath, uint32_t a_u32Error)
{
    OSLOG(OS_LOG_NOTE, "DeleteFile failed...%s (%d)", a_szPath, static_cast<int>(a_u32Error));
}

bool OsFileTree::DeleteEntry()
{
    const bool blAllowed = m_eosfiletype != OS_FILETYPE_SYSTEM || m_blSystemFiles;
    if (blAllowed && PlatTreeDelete(m_plathandle))
        return true;
    const uint32_t u32Error = blAllowed ? PlatGetLastError() : PLAT_ERROR_ACCESSDENIED;
    if (u32Error == PLAT_ERROR_FILENOTFOUND)
        return true;
    if (IsFolder())
        OsFileTellFolderStays(m_szPath);
    else
        TellFileStays(m_szPath, u32Error);
    return false;
}

bool OsFileTree::DeleteAll(const char* a_szExcept)
{
    const size_t sizetDepth = Depth();
    PlatTreeRewind(m_plathandle);
    for (bool blDeleted = true;;)
    {
        if (blDeleted && Next())
        {
            if (a_szExcept && Depth() == sizetDepth && strcmp(m_szName, a_szExcept) == 0)
                continue;
            OSLOG(OS_LOG_NOTE, "Delete: <%s> %d %d", m_szPath, static_cast<int>(OS_FILETYPE_ANY), 1);
            if (!Enter())
                blDeleted = DeleteEntry();
        }
        else if (Depth() > sizetDepth)
        {
            Leave();
            blDeleted = blDeleted && DeleteEntry();
        }
        else
        {
            return blDeleted;
        }
    }
}
