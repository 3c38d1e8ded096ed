// os_coscfg_impl.h: the implementation object and what the sources of the class share.
//
//   os_coscfg.cpp               the public object, construction
//   os_coscfg_table.cpp         sections, tags, their cells
//   os_coscfg_defaults.cpp      the defaults procedure, in its order
//   os_coscfg_ini.cpp           an INI file into the table
//   os_coscfg_profile.cpp       the profile cache: any INI file, by section and key
//   os_coscfg_profiletext.cpp   the text of a file of the cache
//   os_coscfg_profilepath.cpp   which file serves a profile request
//   os_coscfg_common.cpp        the common settings file
//   os_coscfg_paths.cpp         path identifiers and special folders
//   os_coscfg_directories.cpp   the directory set
//   os_coscfg_manage.cpp        looking after the log folders
//   os_coscfg_roaming.cpp       log paths of models that roam
//   os_coscfg_info.cpp          facts about the machine
//   os_coscfg_user.cpp          the user's name
//   os_coscfg_brand.cpp         the brand record
//   os_coscfg_report.cpp        the support report
//   os_coscfg_report_items.cpp  what it lists
#pragma once

#include "os_coscfg.h"
#include "os_coslogfolder.h"
#include "os_costime.h"

#include "plat_machine.h"

#include <atomic>
#include <initializer_list>
#include <memory>
#include <mutex>
#include <new>

class COsThread;

inline constexpr size_t OS_CFGFILESIZE = 65536;     // of an INI file, with its terminator
inline constexpr uint32_t OS_CFGEXTENSION = 1000;   // the first number of extensions, and the end of their lists

// The value table. It keeps pointers to texts of others; only a cell that was adopted owns its text, which is freed
// (delete[]) when the cell is stored again and at the end. Any thread reads; one thread at a time stores, and never a
// cell that owns its text while others read that.
class OsCfgTable
{
public:
    OsCfgTable() = default;
    ~OsCfgTable();
    OsCfgTable(const OsCfgTable&) = delete;
    OsCfgTable& operator=(const OsCfgTable&) = delete;

    void Clear();                                                      // every cell; extensions stay registered
    const char* Get(uint32_t a_u32Section, uint32_t a_u32Tag) const;   // never null

    // EOSSTS_NOTOPEN for an address outside the table. A null value leaves the cell unset.
    EOSSTS Set(uint32_t a_u32Section, uint32_t a_u32Tag, const char* a_szValue);
    EOSSTS Adopt(uint32_t a_u32Section, uint32_t a_u32Tag, char* a_szValue);   // freed also when it is refused

    // Adds the sections and tags of two lists, which live as long as the table; null lists take them away.
    // EOSSTS_NOTOPEN for a number below 1000, EOSSTS_NOMEMORY for more cells than there is room for.
    EOSSTS Register(const OsCfgExtension* a_aoscfgextensionSection, const OsCfgExtension* a_aoscfgextensionTag);

    // The number of a name, without regard to case; 0 when there is none. The sections of an extension have its tags,
    // the others the built-in ones.
    uint32_t FindSection(const char* a_szName) const;
    uint32_t FindTag(uint32_t a_u32Section, const char* a_szName) const;

    const OsCfgExtension* ExtensionSections() const { return m_aoscfgextensionSection; }   // null for none
    const OsCfgExtension* ExtensionTags() const { return m_aoscfgextensionTag; }

private:
    struct Cell
    {
        bool blOwned = false;
        std::atomic<const char*> szValue = nullptr;
    };
    const Cell* Find(uint32_t a_u32Section, uint32_t a_u32Tag) const;
    static void Store(Cell* a_pcell, const char* a_szValue, bool a_blOwned);
    void FreeExtension();

    Cell m_aacell[OS_CFGSECTION_MVRALLDS + 1][OS_CFGTAG_LAST];
    std::unique_ptr<Cell[]> m_acellExtension;
    uint32_t m_u32ExtensionSections = 0;   // rows: from number 1000 to the highest of the list
    uint32_t m_u32ExtensionTags = 0;
    const OsCfgExtension* m_aoscfgextensionSection = nullptr;
    const OsCfgExtension* m_aoscfgextensionTag = nullptr;
};

const char* OsCfgTagName(uint32_t a_u32Tag);   // "" for one without a name
uint32_t OsCfgTagSection(uint32_t a_u32Tag);
const char* OsCfgTagDefault(uint32_t a_u32Tag);   // null for none

// Reads a text of at most a_sizetBuffer - 1 bytes, without its byte-order mark, and terminates it. EOSSTS_NOTFOUND when
// there is no file or it may not be opened, EOSSTS_FAIL (logged) when it cannot be read now; the text is empty then.
EOSSTS OsCfgReadText(const char* a_szPath, bool a_blRedirectionOff, char* a_szBuffer, size_t a_sizetBuffer);

// Splits a text in place: ends its first line at the CR or LF and moves the text behind that. Null behind the last.
char* OsCfgNextLine(char** a_pszText);

// The common settings file, loaded by the first lookup of the process. The answer to a key that is null or empty or
// absent, and to every key without a file, is the default; null stands for the empty text. Any thread; a lookup made
// by what the loading itself calls gets the default.
const char* OsCfgCommonGet(const char* a_szKey, const char* a_szDefault, bool* a_pblFound = nullptr);
bool OsCfgCommonIsYes(const char* a_szKey, const char* a_szDefault);

// The brand record, built by the first lookup: the value of a name without regard to case, "" for none. "brandxml"
// is the whole document.
const char* OsCfgBrand(const char* a_szName);
inline constexpr size_t OS_BRANDNAMESIZE = 64;
const char* OsCfgBrandEntry(size_t a_sizetIndex, const char** a_pszValue);   // null behind the last
const char* OsCfgBrandWord();                                                // the short name, or the maker's own
const char* OsCfgBrandFolder();                                              // the name of the brand's folders

enum EOSSPECIALFOLDER : uint32_t
{
    OS_SPECIALFOLDER_CURRENTUSER_APPDATA = 1,   // the local or the roaming one, as the common settings say
    OS_SPECIALFOLDER_CURRENTUSER_LOCALAPPDATA = 2,
    OS_SPECIALFOLDER_CURRENTUSER_ROAMINGAPPDATA = 3,
    OS_SPECIALFOLDER_CURRENTUSER_DESKTOP = 4,
    OS_SPECIALFOLDER_CURRENTUSER_PROFILE = 5,
    OS_SPECIALFOLDER_DEFAULTUSER_APPDATA = 6,
    OS_SPECIALFOLDER_DEFAULTUSER_DESKTOP = 7,
    OS_SPECIALFOLDER_DEFAULTUSER_PROFILE = 8,
    OS_SPECIALFOLDER_PROGRAMDATA = 9,
    OS_SPECIALFOLDER_PROGRAMFILES = 10,
    OS_SPECIALFOLDER_PROGRAMFILESX86 = 11,
    OS_SPECIALFOLDER_WINDOWS = 12,
    OS_SPECIALFOLDER_SYSTEM = 13,
    OS_SPECIALFOLDER_SYSTEM2 = 14,
    OS_SPECIALFOLDER_STARTMENUPROGRAMS = 15,
    OS_SPECIALFOLDER_MYPICTURES = 16,
    OS_SPECIALFOLDER_MYDOCUMENTS = 17,
};

// Special folders by their number. EOSSTS_FAIL, with an empty path, for another, and where the system has none.
EOSSTS OsCfgSpecialFolder(char* a_szPath, size_t a_sizetPath, uint32_t a_u32SpecialFolder);

// The identifier's name; "OS_PATH_010" for a number without one.
const char* OsCfgPathName(uint32_t a_u32Path);

// The path of an identifier. Most are found out once per process; those that depend on tags are empty without a
// configuration. EOSSTS_FAIL, with an empty path, for one that does not resolve. Any thread.
EOSSTS OsCfgResolvePath(EOSPATH a_eospath, char* a_szPath, size_t a_sizetPath);

// Appends components to a path in a buffer of OS_PATHSIZE bytes. Empty components add nothing, and an empty path stays
// empty: what did not fit, once, is no path.
void OsCfgPathJoin(char* a_szPath, std::initializer_list<const char*> a_components);

// True for the folder itself, too. Both paths are normalised.
bool OsCfgPathLiesBelow(const char* a_szPath, const char* a_szFolder);

// The const.ini of a folder, in a buffer of OS_PATHSIZE bytes. Where only "const.ini.txt" exists, that is given its
// proper name first, or is used itself when it cannot be. Empty for an empty folder.
void OsCfgConstIni(char* a_szPath, const char* a_szFolder);

// The folder of the model's profiles, where MVR_PROFILESDIR moves it to. EOSSTS_FAIL, with an empty path, for none.
EOSSTS OsCfgProfilesFolder(char* a_szPath, size_t a_sizetPath);

// Models by name, at most 64, and whether their logs roam with the user: set and found without regard to case. Setting
// fails for a name of no or of 64 and more characters, and when there is no room.
inline constexpr size_t OS_MODELFLAGS = 64;
struct OsCfgModelFlag
{
    char szModel[64];
    bool blRoaming;
};
bool OsCfgSetModelFlag(const char* a_szModel, bool a_blRoaming);
bool OsCfgModelFlagAt(size_t a_sizetIndex, OsCfgModelFlag* a_poscfgmodelflag);   // false behind the last

// Moves a log path, in place, from the writeable root to the roaming folder when the model (null or empty: the one of
// the arguments) is one that roams. For paths that go to another process.
void OsCfgLocalLogPath(char* a_szPath, size_t a_sizetPath, const char* a_szModel);

// The name that a profile has in the protected layout (a_blDebug: that of its diagnostic companion), or the name
// itself. EOSSTS_FAIL, with an empty name, when it has none or does not fit.
EOSSTS OsCfgProfileMap(const char* a_szFile, bool a_blDebug, char* a_szMapped, size_t a_sizetMapped);

// The file that serves a request. EOSSTS_FAIL, with an empty path, when there is none or it does not fit.
EOSSTS OsCfgProfileResolve(const char* a_szFile, const char* a_szSection, const char* a_szKey, char* a_szResolved,
                           size_t a_sizetResolved);

// What the section headers of protected and unprotected INI files must begin with, "" for nothing. Computed once per
// process, from the arguments.
const char* OsCfgSectionPrefix();

// Facts about the machine, gathered once per process, by the first question.
const char* OsCfgInfoString(EOSCFGINFO a_eoscfginfo);
int64_t OsCfgInfoLong(EOSCFGINFO a_eoscfginfo);
void OsCfgInfoTellNames();         // logs the host and the system volume, once per process
bool OsCfgIsService();             // the process is in the services session
bool OsCfgIsCertificationHost();   // a test of the system's image-acquisition service hosts this process
const char* OsCfgUserName();       // item OS_CFGINFO_OS_USERNAME

// Who worked here last, as a process in a user's session left it. False, with an empty name, when nobody did.
bool OsCfgLastUser(char* a_szName, size_t a_sizetName);

// What the table of systems makes of a version record.
inline constexpr size_t OS_SYSTEMNAMESIZE = 32;
void OsCfgNameSystem(const PlatVersion& a_platversion, char* a_szName, size_t a_sizetName, uint32_t* a_pu32Id);

// What is made by the first question of the process and never freed. No lock is held while it is made: a log line of
// the making may lead back here, through the header that the logger writes. The first one that is finished stays, and
// a_tell gets it once. Null when the making gave nothing, an empty record when it threw for want of memory: the next
// question tries again.
template <class Record, class Make, class Tell = void (*)(const Record&)>
const Record* OsCfgPublished(
    std::atomic<const Record*>& a_precord, Make a_make, Tell a_tell = [](const Record&) {})
{
    if (const Record* const precord = a_precord.load(std::memory_order_acquire))
        return precord;
    try
    {
        std::unique_ptr<const Record> record = a_make();
        const Record* precordFirst = nullptr;
        if (!record || !a_precord.compare_exchange_strong(precordFirst, record.get(), std::memory_order_acq_rel))
            return precordFirst;
        const Record* const precord = record.release();
        a_tell(*precord);
        return precord;
    }
    catch (const std::bad_alloc&)
    {
        static const Record g_recordNone{};
        return &g_recordNone;
    }
}

// Whether the environment asks for the support report, and logging is not off for the process.
bool OsCfgIsReportWanted();

enum class OsCfgLoadMode : uint32_t
{
    Path,          // the file that is given
    Protected,     // the protected const.ini
    Unprotected,   // debug.ini
};

class COsCfgImpl
{
public:
    explicit COsCfgImpl(const COsCfg::CreateArgs& a_createargs);
    ~COsCfgImpl();
    COsCfgImpl(const COsCfgImpl&) = delete;
    COsCfgImpl& operator=(const COsCfgImpl&) = delete;

    // Starts the management thread where that is wanted.
    void StartManagement();

    // Ends the management thread. Reads of the configuration still work.
    void StopManagement();

    // The defaults procedure. Logs "SetDirectories failed..." and leaves every tag empty when the directory set cannot
    // be computed.
    void Load();

    void ManageLogDirectories(const char* a_szLogFolder, const COsThread* a_posthread);
    EOSSTS WriteReport();

    OsCfgTable m_oscfgtable;

    // What the constructor was given.
    EOSCFGENTITY m_eoscfgentity;
    char m_szFudge[128] = {};   // the unique name
    char m_aszVersion[OS_CFGVERSIONS][16] = {};
    bool m_blForceSetAccess;
    bool m_blUsersFolder = false;         // per-user folders are in use
    bool m_blLogDirectory = false;        // the log folder is there, or logging is off
    bool m_blVersionOverridden = false;   // an INI file gives another major or minor version

    // The directory set.
    char m_szSystemDirectory[OS_PATHSIZE] = {};
    char m_szHomeDirectory[OS_PATHSIZE] = {};
    char m_szLibraryPath[OS_PATHSIZE] = {};
    char m_szLegacyRootWriteableDirectory[OS_PATHSIZE] = {};
    char m_szLegacyRootCommonDirectory[OS_PATHSIZE] = {};
    char m_szLegacyRootModelDirectory[OS_PATHSIZE] = {};
    char m_szLegacyCommonDirectory[OS_PATHSIZE] = {};
    char m_szLegacyDeviceDirectory[OS_PATHSIZE] = {};
    char m_szLegacyUserDirectory[OS_PATHSIZE] = {};
    char m_szUserRootWriteableDirectory[OS_PATHSIZE] = {};
    char m_szUserRootCommonDirectory[OS_PATHSIZE] = {};
    char m_szUserRootModelDirectory[OS_PATHSIZE] = {};
    char m_szSharedRootWriteableDirectory[OS_PATHSIZE] = {};
    char m_szSharedRootCommonDirectory[OS_PATHSIZE] = {};
    char m_szSharedRootModelDirectory[OS_PATHSIZE] = {};
    char m_szSharedCommonDirectory[OS_PATHSIZE] = {};
    char m_szSharedDeviceDirectory[OS_PATHSIZE] = {};
    char m_szSharedUserDirectory[OS_PATHSIZE] = {};
    char m_szRootWriteableDirectory[OS_PATHSIZE] = {};
    char m_szRootCommonDirectory[OS_PATHSIZE] = {};
    char m_szRootModelDirectory[OS_PATHSIZE] = {};
    char m_szCommonDirectory[OS_PATHSIZE] = {};
    char m_szUserDirectory[OS_PATHSIZE] = {};
    char m_szDriverDirectory[OS_PATHSIZE] = {};
    char m_szLogDirectory[OS_PATHSIZE] = {};
    char m_szFwDirectory[OS_PATHSIZE] = {};
    char m_szOtterDirectory[OS_PATHSIZE] = {};
    char m_szUiDirectory[OS_PATHSIZE] = {};
    char m_szTmpDirectory[OS_PATHSIZE] = {};
    char m_szMultimediaDirectory[OS_PATHSIZE] = {};
    char m_szRootDirectory[OS_PATHSIZE] = {};
    char m_szModelDirectory[OS_PATHSIZE] = {};
    char m_szModelDirectoryReal[OS_PATHSIZE] = {};
    char m_szConfigFilenameConstIni[OS_PATHSIZE] = {};
    char m_szSharedConfigFilenameConstIni[OS_PATHSIZE] = {};
    char m_szLegacyConfigFilenameConstIni[OS_PATHSIZE] = {};
    char m_szLogFilename[OS_PATHSIZE] = {};
    char m_szMainProgram[OS_PATHSIZE] = {};   // the program file of this process
    char m_szApplication[OS_PATHSIZE] = {};
    char m_szProgramFileName[OS_PATHSIZE] = {};
    char m_szLibraryName[OS_PATHSIZE] = {};
    char m_szLogTimeStamp[OS_TIMESTAMPSIZE] = {};
    char m_szTmp[OS_PATHSIZE] = {};

    // Start values of tags that a debugger or a program kind changes.
    char m_szLogDebug[16] = {};
    char m_szLogFilter[128] = {};
    char m_szDebugDisplayLength[16] = {};
    char m_szForceUsbMonitorTimeout[16] = {};
    char m_szUiTimeout[16] = {};
    char m_szUnitsBehavior[16] = {};
    char m_szSaneTwainVersion[32] = {};

    // The INI files, as the table's values point into them. Null for one that was not read.
    std::unique_ptr<char[]> m_szFileData;
    std::unique_ptr<char[]> m_szFileDataLegacy;
    std::unique_ptr<char[]> m_szFileDataUnprotected;

private:
    // The steps of Load, in their order; os_coscfg_defaults.cpp.
    void StoreDefaults();
    void LoadIniFiles();
    void StoreComputed();
    void RestartLogger();
    void StoreBrand();
    void StoreNames();
    void StoreProgram();

    // The directory set, in this order; false when there is no folder to write to. os_coscfg_directories.cpp.
    bool SetDirectories();
    void SetProgram();
    void SetRoots();
    void SetFolders();
    void SetLogFolder();
    void SetConstIniNames();
    bool CreateFolders() const;   // false without a log folder
    bool UsesOthersLog() const;
    void FindLogModel(char* a_szModel, size_t a_sizetModel) const;

    void LockOwnFolder(const COsThread* a_posthread);   // os_coscfg_manage.cpp

    void StoreSaneTwainVersion();
    void FindApplication();
    void StoreHostProgram();
    void Store(EOSCFGTAG a_eoscfgtag, const char* a_szValue);   // in the identity section
    long Number(EOSCFGTAG a_eoscfgtag) const;

    // Loads one INI file into the table; the path is for OsCfgLoadMode::Path alone. EOSSTS_NOTFOUND when it cannot be
    // opened, EOSSTS_FAIL when it cannot be read.
    EOSSTS LoadIni(const char* a_szPath, std::unique_ptr<char[]>& a_szBuffer, OsCfgLoadMode a_oscfgloadmode);

    COsThread* m_posthreadManage = nullptr;
    std::mutex m_mutexLogFolder;
    COsLogFolderLock m_oslogfolderlock;   // our own log folder's
};
