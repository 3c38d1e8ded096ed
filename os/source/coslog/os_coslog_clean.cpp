// os_coslog_clean.cpp: the cleaner of the log folders.
//
// One walk goes through the folders and deletes each log folder that has expired and is not in use. It follows no link,
// and changes during the walk cannot lead it out of the tree.
#include "os_coslog.h"

#include "os_cosfile_tree.h"
#include "os_coslogfolder.h"
#include "os_cospath.h"
#include "os_cosstring.h"
#include "os_log.h"

#include "plat_system.h"

#include <algorithm>

static constexpr char g_szSource[] = "os/source/os_coslog";

static constexpr char g_szLogFileSuffix[] = ".log";
static constexpr int64_t g_i64HourSeconds = 3600;
static constexpr int64_t g_i64Second = 10000000;   // in PlatClock units

// A path without one of these words does not belong to the product.
static constexpr const char* g_aszBrandWord[] = {"orvane", "mvr_orvane", "brisal", "quorra"};

static bool IsOfTheProduct(const char* a_szPath)
{
    return std::any_of(std::begin(g_aszBrandWord), std::end(g_aszBrandWord),
                       [a_szPath](const char* a_szWord) { return StrIstr(a_szPath, a_szWord) != nullptr; });
}

// The log folder that this process writes to; if its log file is in none, the folder of that file; "" without a log
// file.
static void FindProtectedFolder(char (&a_szFolder)[OS_PATHSIZE])
{
    const COsLog* const poslog = OsLogGet();
    OsPathCopy(a_szFolder, sizeof a_szFolder, poslog ? poslog->LogFile() : "");
    for (;;)
    {
        size_t sizetFolder = 0;
        const char* szName = nullptr;
        OsPathSplit(a_szFolder, &sizetFolder, &szName);
        if (sizetFolder == 0 || StrStartsWith(szName, OS_LOGFOLDERPREFIX))
            return;
        a_szFolder[sizetFolder] = '\0';
    }
}

namespace
{
class FolderCleaner
{
public:
    explicit FolderCleaner(int32_t a_i32Hours) : m_i32Hours(a_i32Hours) { FindProtectedFolder(m_szProtected); }

    void Clean(const char* a_szFolder);

private:
    bool MayTouch() const;
    void CleanLogFolder();
    bool IsExpired();

    int32_t m_i32Hours;
    char m_szProtected[OS_PATHSIZE];
    OsFileTree m_osfiletree{false};
};

void FolderCleaner::Clean(const char* a_szFolder)
{
    if (m_osfiletree.Open(a_szFolder) != EOSSTS_SUCCESS)
        return;
    for (;;)
    {
        if (m_osfiletree.Next())
        {
            if (!MayTouch())
                continue;
            if (StrStartsWith(m_osfiletree.Name(), OS_LOGFOLDERPREFIX))
            {
                CleanLogFolder();
            }
            else
            {
                m_osfiletree.Enter();
            }
        }
        else if (m_osfiletree.Depth() > 0)
        {
            m_osfiletree.Leave();
        }
        else
        {
            return;
        }
    }
}

// A folder whose path is unknown may be the protected one.
bool FolderCleaner::MayTouch() const
{
    if (!m_osfiletree.IsFolder() || m_osfiletree.Name()[0] == '.')
        return false;
    if (!m_osfiletree.HasPath())
    {
        OSLOG(OS_LOG_CHECK, "buffer overflow...%u <%s>", static_cast<unsigned>(OS_PATHSIZE), m_osfiletree.Name());
        return false;
    }
    return !m_szProtected[0] || StrIstr(m_osfiletree.Path(), m_szProtected) != m_osfiletree.Path();
}

// A folder that cannot be read is kept.
void FolderCleaner::CleanLogFolder()
{
    if (!m_osfiletree.Enter())
        return;
    const bool blExpired = IsExpired();
    m_osfiletree.Leave();
    if (blExpired)
        OsLogFolderDelete(m_osfiletree);
}

// Judges the walk's current folder by its newest log file: the order of a search is undefined. A log file dated in the
// future is not old.
bool FolderCleaner::IsExpired()
{
    if (m_i32Hours <= 0)
        return true;
    bool blLogFile = false;
    uint64_t u64LastWritten = 0;
    while (m_osfiletree.Next())
    {
        uint64_t u64Written;
        if (m_osfiletree.IsFolder() || !StrEndsWith(m_osfiletree.Name(), g_szLogFileSuffix, true) ||
            !m_osfiletree.WriteTime(&u64Written))
            continue;
        blLogFile = true;
        u64LastWritten = std::max(u64LastWritten, u64Written);
    }
    const auto i64Age = static_cast<int64_t>(PlatClock() - u64LastWritten);
    return !blLogFile || i64Age / g_i64Second >= m_i32Hours * g_i64HourSeconds;
}
}   // namespace

void OsLogCleanFolders(const char* a_szFolder, int32_t a_i32Hours)
{
    if (!a_szFolder || !IsOfTheProduct(a_szFolder))
        return;
    FolderCleaner foldercleaner(a_i32Hours);
    foldercleaner.Clean(a_szFolder);
}
