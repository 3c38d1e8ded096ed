// lcctl_find.cpp: the root folders, the walk below them, reading headers.
#include "lcctl_find.h"

#include "lcctl_logline.h"

#include "os_cfg.h"
#include "os_coscfg.h"
#include "os_types.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <charconv>
#include <cstdlib>
#include <fstream>
#include <pwd.h>
#include <set>
#include <string_view>

namespace fs = std::filesystem;

static constexpr std::string_view g_svPrefix = "log.";
static constexpr std::string_view g_svSuffix = ".log";
static constexpr std::string_view g_svOwn = "-own";
static constexpr int g_iDepth = 16;              // levels of folders below a root
static constexpr size_t g_sizetHeader = 32768;   // bytes searched for a header
static constexpr char g_szMakerFolder[] = "mvr_orvane";
static constexpr char g_szMakerWord[] = "orvane";

// ------------------------------------------------------------------------------------------------------- the roots

static std::string Environment(const char* a_szName)
{
    const char* const szValue = std::getenv(a_szName);
    return szValue ? szValue : "";
}

static fs::path ConfiguredFolder(EOSPATH a_eospath)
{
    char szPath[OS_PATHSIZE];
    OsCfgCommonInstall();
    return OsCfgGetPath(a_eospath, szPath, sizeof szPath) == EOSSTS_SUCCESS ? LcctlHostPath(szPath) : fs::path();
}

// "X:" maps to the folder "x" below the folder for drives.
fs::path LcctlHostPath(const std::string& a_strPath)
{
    std::string strPath = a_strPath;
    if (fs::path::preferred_separator == '\\')
        return strPath;
    std::replace(strPath.begin(), strPath.end(), '\\', '/');
    if (strPath.size() < 2 || strPath[1] != ':' || !std::isalpha(static_cast<unsigned char>(strPath[0])))
        return strPath;
    const std::string strDrives = Environment("MVR_DRIVEROOT");
    const fs::path pathDrives = strDrives.empty()
                                    ? ConfiguredFolder(OS_PATH_SPECIALFOLDER_CURRENTUSER_APPDATA) / "drives"
                                    : LcctlHostPath(strDrives);
    const char chDrive = static_cast<char>(std::tolower(static_cast<unsigned char>(strPath[0])));
    return pathDrives / std::string(1, chDrive) / fs::path(strPath.substr(2)).relative_path();
}

// The folder as the library derives it.
static fs::path FolderOfEnvironment()
{
    static constexpr std::string_view g_svBrand = "@@@BRAND@@@";
    std::string strFolder = Environment("MVR_LOGDIR");
    const std::string strCompany = Environment("MVR_COMPANYNAMESHORT");
    const std::string strWord = strCompany.empty() ? g_szMakerWord : strCompany;
    for (size_t sizet = 0; (sizet = strFolder.find(g_svBrand, sizet)) != std::string::npos; sizet += strWord.size())
        strFolder.replace(sizet, g_svBrand.size(), strWord);
    std::transform(strFolder.begin(), strFolder.end(), strFolder.begin(), [](unsigned char a_ch) {
        return a_ch < 0x80 ? static_cast<char>(std::tolower(a_ch)) : static_cast<char>(a_ch);
    });
    return strFolder.empty() ? fs::path() : fs::absolute(LcctlHostPath(strFolder));
}

// The default folders of each home.
static void AddHomes(std::vector<fs::path>& a_vecpath, const fs::path& a_pathBrand)
{
    setpwent();
    while (const passwd* const ppasswd = getpwent())
    {
        for (const char* szFolder : {".local/share", ".config", ".local/state"})
            a_vecpath.push_back(fs::path(ppasswd->pw_dir) / szFolder / a_pathBrand);
    }
    endpwent();
}

static bool LiesIn(const fs::path& a_path, const fs::path& a_pathFolder)
{
    return std::mismatch(a_pathFolder.begin(), a_pathFolder.end(), a_path.begin(), a_path.end()).first ==
           a_pathFolder.end();
}

// Keeps existing folders, without those inside another one that is searched deep enough.
static std::vector<LcctlLogRoot> Distinct(std::vector<LcctlLogRoot> a_veclogroot)
{
    for (LcctlLogRoot& logroot : a_veclogroot)
    {
        std::error_code error;
        const fs::path path = logroot.path.empty() ? logroot.path : fs::canonical(logroot.path, error);
        logroot.path = !error && fs::is_directory(path, error) ? path : fs::path();
    }
    std::sort(a_veclogroot.begin(), a_veclogroot.end(), [](const LcctlLogRoot& a_logroot, const LcctlLogRoot& a_other) {
        return std::pair(-a_logroot.iDepth, a_logroot.path) < std::pair(-a_other.iDepth, a_other.path);
    });
    std::vector<LcctlLogRoot> veclogroot;
    for (const LcctlLogRoot& logroot : a_veclogroot)
    {
        const bool blInside = std::any_of(veclogroot.begin(), veclogroot.end(), [&](const LcctlLogRoot& a_logroot) {
            return a_logroot.iDepth == g_iDepth ? LiesIn(logroot.path, a_logroot.path) : logroot.path == a_logroot.path;
        });
        if (!logroot.path.empty() && !blInside)
            veclogroot.push_back(logroot);
    }
    return veclogroot;
}

std::vector<LcctlLogRoot> LcctlLogRoots(const LcctlFindArgs& a_findargs)
{
    std::vector<LcctlLogRoot> veclogroot;
    const auto add = [&veclogroot](const fs::path& a_path) { veclogroot.push_back({a_path, g_iDepth}); };
    std::for_each(a_findargs.vecstrFolder.begin(), a_findargs.vecstrFolder.end(), add);
    if (!veclogroot.empty())
        return Distinct(veclogroot);
    const fs::path pathLocal = ConfiguredFolder(OS_PATH_WRITEABLE_FOLDER_BRAND_LOCAL);
    add(ConfiguredFolder(OS_PATH_WRITEABLE_FOLDER_BRAND_LEGACY));
    add(pathLocal);
    add(ConfiguredFolder(OS_PATH_WRITEABLE_FOLDER_BRAND_ROAMING));
    if (a_findargs.blAllUsers)
    {
        std::vector<fs::path> vecpath;
        AddHomes(vecpath, pathLocal.empty() ? fs::path(g_szMakerFolder) : pathLocal.filename());
        std::for_each(vecpath.begin(), vecpath.end(), add);
    }
    veclogroot.push_back({FolderOfEnvironment(), 1});   // anything deeper is not ours
    return Distinct(veclogroot);
}

// -------------------------------------------------------------------------------------------------------- one log

static bool StartsWith(const fs::path& a_path, std::string_view a_svPrefix)
{
    return a_path.filename().native().starts_with(a_svPrefix);
}

static bool IsLog(const fs::path& a_path)
{
    return a_path.native().ends_with(g_svSuffix);
}

static void ReadHeader(LcctlLogFile& a_logfile)
{
    std::string strText(std::min<uint64_t>(a_logfile.u64Bytes, g_sizetHeader), '\0');
    std::ifstream stream(a_logfile.path, std::ios::binary);
    stream.read(strText.data(), static_cast<std::streamsize>(strText.size()));
    strText.resize(static_cast<size_t>(std::max<std::streamsize>(stream.gcount(), 0)));
    bool blFirst = true;
    for (size_t sizetStart = 0; sizetStart < strText.size() && !a_logfile.u64ProcessId;)
    {
        const size_t sizetEnd = std::min(strText.find('\n', sizetStart), strText.size());
        const char* const pchEnd = strText.data() + sizetEnd;
        LcctlPrefix lcctlprefix;
        if (LcctlParsePrefix(strText.data() + sizetStart, pchEnd, lcctlprefix))
        {
            const std::string_view svMessage(lcctlprefix.pchMessage,
                                             static_cast<size_t>(pchEnd - lcctlprefix.pchMessage));
            const auto runstart = LcctlRunStart(svMessage);
            if (runstart && blFirst)
                a_logfile.runstart = runstart;
            a_logfile.u64ProcessId = LcctlRunProcess(svMessage).value_or(0);
            blFirst = false;
        }
        sizetStart = sizetEnd + 1;
    }
}

LcctlLogFile LcctlLookAtLog(const fs::path& a_path, bool a_blHeader)
{
    std::error_code error;
    LcctlLogFile logfile;
    logfile.path = a_path;
    const auto bytes = fs::file_size(a_path, error);
    if (error)
        return logfile;
    logfile.u64Bytes = bytes;
    logfile.filetimeWritten = fs::last_write_time(a_path, error);
    if (a_blHeader)
        ReadHeader(logfile);
    return logfile;
}

// ------------------------------------------------------------------------------------------------------ one folder

// Splits "demo-4242" into "demo" and 4242, and "demo-own" into "demo"; other names are returned unchanged.
static std::string BaseOf(const std::string& a_strName, uint64_t& a_u64ProcessId)
{
    if (a_strName.ends_with(g_svOwn))
        return a_strName.substr(0, a_strName.size() - g_svOwn.size());
    const size_t sizetDash = a_strName.rfind('-');
    const std::string strDigits = sizetDash == std::string::npos ? "" : a_strName.substr(sizetDash + 1);
    if (strDigits.empty() || strDigits.size() > 10 || strDigits.find_first_not_of("0123456789") != std::string::npos)
        return a_strName;
    a_u64ProcessId = std::stoull(strDigits);
    return a_strName.substr(0, sizetDash);
}

// A log without a header has the process id of the log beside it.
static uint64_t ProcessOf(const fs::path& a_path)
{
    uint64_t u64ProcessId = 0;
    const std::string strBase = BaseOf(a_path.stem().string(), u64ProcessId);
    if (u64ProcessId || strBase == a_path.stem())
        return u64ProcessId;
    const fs::path pathBase = a_path.parent_path() / (strBase + std::string(g_svSuffix));
    const LcctlLogFile logfile = LcctlLookAtLog(pathBase);
    return logfile.u64ProcessId ? logfile.u64ProcessId : ProcessOf(pathBase);
}

// The log of a process sorts before the related logs.
static void Sort(std::vector<LcctlLogFile>& a_vecfile)
{
    std::sort(a_vecfile.begin(), a_vecfile.end(), [](const LcctlLogFile& a_logfile, const LcctlLogFile& a_other) {
        return std::pair(a_logfile.path.parent_path(), a_logfile.path.stem()) <
               std::pair(a_other.path.parent_path(), a_other.path.stem());
    });
}

static void Complete(LcctlLogFile& a_logfile)
{
    if (!a_logfile.u64ProcessId)
        a_logfile.u64ProcessId = ProcessOf(a_logfile.path);
}

void LcctlReadHeaders(LcctlLogFolder& a_logfolder)
{
    for (LcctlLogFile& logfile : a_logfolder.vecfile)
    {
        logfile = LcctlLookAtLog(logfile.path);
        Complete(logfile);
    }
}

namespace
{
class FolderWalk
{
public:
    FolderWalk(const LcctlFindArgs& a_findargs, std::vector<LcctlLogFolder>& a_veclogfolder)
        : m_blHeaders(a_findargs.blHeaders), m_veclogfolder(a_veclogfolder)
    {
    }

    void Walk(const fs::path& a_path, int a_iDepth);

private:
    void TakeFolder(const fs::path& a_path, int a_iDepth);
    void TakeContent(LcctlLogFolder& a_logfolder, const fs::path& a_path, int a_iDepth);
    void Complete(LcctlLogFolder& a_logfolder) const;

    bool m_blHeaders;
    std::vector<LcctlLogFolder>& m_veclogfolder;
};

// The entries of a folder; none if it cannot be read.
std::vector<fs::directory_entry> Entries(const fs::path& a_path)
{
    std::error_code error;
    std::vector<fs::directory_entry> vecentry;
    for (fs::directory_iterator iterator(a_path, error), end; !error && iterator != end; iterator.increment(error))
        vecentry.push_back(*iterator);
    return vecentry;
}

bool IsFolder(const fs::directory_entry& a_entry)
{
    std::error_code error;
    return a_entry.symlink_status(error).type() == fs::file_type::directory;
}

void FolderWalk::Walk(const fs::path& a_path, int a_iDepth)
{
    if (StartsWith(a_path, g_svPrefix))
    {
        TakeFolder(a_path, a_iDepth);
        return;
    }
    if (a_iDepth == 0)
        return;
    for (const fs::directory_entry& entry : Entries(a_path))
    {
        if (IsFolder(entry) && !StartsWith(entry.path(), "."))
            Walk(entry.path(), a_iDepth - 1);
    }
}

void FolderWalk::TakeFolder(const fs::path& a_path, int a_iDepth)
{
    LcctlLogFolder logfolder;
    logfolder.path = a_path;
    TakeContent(logfolder, a_path, a_iDepth);
    Complete(logfolder);
    m_veclogfolder.push_back(std::move(logfolder));
}

void FolderWalk::TakeContent(LcctlLogFolder& a_logfolder, const fs::path& a_path, int a_iDepth)
{
    for (const fs::directory_entry& entry : Entries(a_path))
    {
        std::error_code error;
        if (IsFolder(entry))
        {
            if (StartsWith(entry.path(), g_svPrefix))
                TakeFolder(entry.path(), a_iDepth);
            else if (a_iDepth > 0)
                TakeContent(a_logfolder, entry.path(), a_iDepth - 1);
            continue;
        }
        ++a_logfolder.u64Files;
        if (entry.symlink_status(error).type() != fs::file_type::regular)
            continue;
        const auto bytes = entry.file_size(error);
        a_logfolder.u64Bytes += error ? 0 : bytes;
        if (!error && bytes && IsLog(entry.path()))
            a_logfolder.vecfile.push_back(LcctlLookAtLog(entry.path(), m_blHeaders));
    }
}

void FolderWalk::Complete(LcctlLogFolder& a_logfolder) const
{
    std::error_code error;
    const fs::path pathApplication = a_logfolder.path.parent_path();
    std::vector<LcctlLogFile>& vecfile = a_logfolder.vecfile;
    a_logfolder.strApplication = pathApplication.filename().string();
    a_logfolder.filetimeWritten = fs::last_write_time(a_logfolder.path, error);

    // The application's own log comes first.
    const fs::path pathMain = a_logfolder.path / (a_logfolder.strApplication + std::string(g_svSuffix));
    Sort(vecfile);
    for (LcctlLogFile& logfile : vecfile)
    {
        if (m_blHeaders)
            ::Complete(logfile);
    }
    std::stable_partition(vecfile.begin(), vecfile.end(),
                          [&](const LcctlLogFile& a_logfile) { return a_logfile.path == pathMain; });
    const auto stamp = LcctlStampTime(a_logfolder.path.filename().string().substr(g_svPrefix.size()));
    const auto runstart = vecfile.empty() ? std::nullopt : vecfile.front().runstart;
    a_logfolder.lcctltimeStart = stamp ? *stamp : runstart ? *runstart : LcctlWallTime(a_logfolder.filetimeWritten);
    if (vecfile.empty())
        return;

    // Below MVR_LOGDIR the parent folder's name has no meaning.
    if (vecfile.front().path == pathMain)
        a_logfolder.strModel = pathApplication.parent_path().filename().string();
    else
        a_logfolder.strApplication = vecfile.front().path.stem().string();
    a_logfolder.filetimeWritten = std::max_element(vecfile.begin(), vecfile.end(),
                                                   [](const LcctlLogFile& a_logfile, const LcctlLogFile& a_other) {
                                                       return a_logfile.filetimeWritten < a_other.filetimeWritten;
                                                   })
                                      ->filetimeWritten;
}
}   // namespace

std::vector<LcctlLogFolder> LcctlFindFolders(const LcctlFindArgs& a_findargs)
{
    std::vector<LcctlLogFolder> veclogfolder;
    FolderWalk folderwalk(a_findargs, veclogfolder);
    for (const LcctlLogRoot& logroot : LcctlLogRoots(a_findargs))
        folderwalk.Walk(logroot.path, logroot.iDepth);
    std::stable_sort(veclogfolder.begin(), veclogfolder.end(),
                     [](const LcctlLogFolder& a_logfolder, const LcctlLogFolder& a_other) {
                         return a_logfolder.lcctltimeStart < a_other.lcctltimeStart;
                     });
    return veclogfolder;
}

// "demo-4242-own" belongs to "demo-4242", and therefore to "demo".
static bool BelongsTo(const std::string& a_strName, const std::string& a_strOther)
{
    uint64_t u64ProcessId = 0;
    const std::string strBase = BaseOf(a_strName, u64ProcessId);
    return a_strName == a_strOther || (strBase != a_strName && BelongsTo(strBase, a_strOther));
}

static bool IsLogWithText(const fs::directory_entry& a_entry)
{
    std::error_code error;
    return IsLog(a_entry.path()) && a_entry.is_regular_file(error) && a_entry.file_size(error) && !error;
}

std::vector<LcctlLogFile> LcctlNamedLogs(const fs::path& a_path, bool a_blHeaders)
{
    std::error_code error;
    std::vector<LcctlLogFile> vecfile;
    const auto add = [&](const fs::path& a_pathLog) { vecfile.push_back(LcctlLookAtLog(a_pathLog, a_blHeaders)); };
    if (fs::is_directory(a_path, error))
    {
        static constexpr auto g_options = fs::directory_options::skip_permission_denied;
        for (fs::recursive_directory_iterator iterator(a_path, g_options, error), end; !error && iterator != end;
             iterator.increment(error))
        {
            if (IsLogWithText(*iterator))
                add(iterator->path());
        }
    }
    else if (fs::exists(a_path, error))
    {
        add(a_path);
        for (const fs::directory_entry& entry : Entries(a_path.has_parent_path() ? a_path.parent_path() : "."))
        {
            const bool blOther = entry.path().filename() != a_path.filename();
            if (blOther && IsLogWithText(entry) && BelongsTo(entry.path().stem(), a_path.stem()))
                add(entry.path());
        }
    }
    Sort(vecfile);
    for (LcctlLogFile& logfile : vecfile)
    {
        if (a_blHeaders)
            Complete(logfile);
    }
    return vecfile;
}

bool LcctlIsOf(const LcctlLogFolder& a_logfolder, const std::string& a_strApplication)
{
    const auto named = [&](const LcctlLogFile& a_logfile) { return a_logfile.path.stem() == a_strApplication; };
    return a_logfolder.strApplication == a_strApplication || a_logfolder.strModel == a_strApplication ||
           a_logfolder.path.parent_path().filename() == a_strApplication ||
           std::any_of(a_logfolder.vecfile.begin(), a_logfolder.vecfile.end(), named);
}

// ----------------------------------------------------------------------------------------------------- the children

static bool IsLikelyChild(const LcctlLogFolder& a_logfolder, const LcctlLogFolder& a_logfolderParent)
{
    return a_logfolder.ProcessId() && a_logfolder.lcctltimeStart >= a_logfolderParent.lcctltimeStart &&
           a_logfolder.lcctltimeStart <= LcctlWallTime(a_logfolderParent.filetimeWritten) + LCCTL_SECOND;
}

// The processes that a log reports as started.
static void ReadSpawned(const fs::path& a_path, std::set<uint64_t>& a_setProcess)
{
    static constexpr std::string_view g_svSpawned = "Spawn: dwProcessId.....";
    static constexpr size_t g_sizetOverlap = 64;
    std::ifstream stream(a_path, std::ios::binary);
    std::string strPiece(size_t{1} << 20, '\0');
    size_t sizetKept = 0;
    while (stream)
    {
        stream.read(strPiece.data() + sizetKept, static_cast<std::streamsize>(strPiece.size() - sizetKept));
        const std::string_view sv(strPiece.data(), sizetKept + static_cast<size_t>(stream.gcount()));
        for (size_t sizet = 0; (sizet = sv.find(g_svSpawned, sizet)) != std::string_view::npos;)
        {
            sizet += g_svSpawned.size();
            const char* const pchEnd = sv.data() + sv.size();
            uint64_t u64ProcessId = 0;
            const auto [pch, error] = std::from_chars(sv.data() + sizet, pchEnd, u64ProcessId);
            if (error == std::errc() && pch != pchEnd)
                a_setProcess.insert(u64ProcessId);
        }
        sizetKept = std::min(g_sizetOverlap, sv.size());
        std::copy_n(sv.end() - static_cast<ptrdiff_t>(sizetKept), sizetKept, strPiece.begin());
    }
}

std::vector<size_t> LcctlWithChildren(const std::vector<LcctlLogFolder>& a_veclogfolder, std::vector<size_t> a_vecsizet)
{
    std::set<size_t> setsizet(a_vecsizet.begin(), a_vecsizet.end());
    while (!a_vecsizet.empty())
    {
        const LcctlLogFolder& logfolder = a_veclogfolder[a_vecsizet.back()];
        a_vecsizet.pop_back();
        std::vector<size_t> vecsizetLikely;
        for (size_t sizet = 0; sizet < a_veclogfolder.size(); ++sizet)
        {
            if (!setsizet.count(sizet) && IsLikelyChild(a_veclogfolder[sizet], logfolder))
                vecsizetLikely.push_back(sizet);
        }
        std::set<uint64_t> setProcess;
        for (const LcctlLogFile& logfile : logfolder.vecfile)
        {
            if (!vecsizetLikely.empty())
                ReadSpawned(logfile.path, setProcess);
        }
        for (const size_t sizet : vecsizetLikely)
        {
            if (setProcess.count(a_veclogfolder[sizet].ProcessId()) && setsizet.insert(sizet).second)
                a_vecsizet.push_back(sizet);
        }
    }
    return {setsizet.begin(), setsizet.end()};
}
