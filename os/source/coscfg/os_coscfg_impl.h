// os_coscfg_impl.h: the implementation object and declarations shared by the sources of the class.
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
//   os_coscfg_manage.cpp        removal of old log folders
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

// The value table. It stores pointers to texts owned by others; only an adopted cell owns its text, which is freed
// (delete[]) when the cell is stored again and at the end. Any thread may read. One thread at a time may store, and a
// cell that owns its text must not be stored while other threads read it.
class OsCfgTable
{
public:
    OsCfgTable() = default;
    ~OsCfgTable();
    OsCfgTable(const OsCfgTable&) = delete;
    OsCfgTable& operator=(const OsCfgTable&) = delete;

    void Clear();                                                      // clears every cell; extensions stay registered
    const char* Get(uint32_t a_u32Section, uint32_t a_u32Tag) const;   // never null

    // EOSSTS_NOTOPEN for an address outside the table. A null value leaves the cell unset.
    EOSSTS Set(uint32_t a_u32Section, uint32_t a_u32Tag, const char* a_szValue);
    EOSSTS Adopt(uint32_t a_u32Section, uint32_t a_u32Tag, char* a_szValue);   // freed also when it is refused

    // Registers the sections and tags of two lists, which must live as long as the table; null removes them.
    // EOSSTS_NOTOPEN for a number below 1000, EOSSTS_NOMEMORY when there are too many cells.
    EOSSTS Register(const OsCfgExtension* a_aoscfgextensionSection, const OsCfgExtension* a_aoscfgextensionTag);

    // The number of a name, compared without regard to case; 0 if unknown. Sections of an extension have the
    // extension's tags, the others the built-in tags.
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

// Reads at most a_sizetBuffer - 1 bytes of a text file, drops the byte-order mark and terminates the text. Otherwise
// the text is empty: EOSSTS_NOTFOUND when the file does not exist or may not be opened, EOSSTS_FAIL (logged) when it
// cannot be read now.
EOSSTS OsCfgReadText(const char* a_szPath, bool a_blRedirectionOff, char* a_szBuffer, size_t a_sizetBuffer);

// Splits a text in place: ends the first line at its CR or LF and moves *a_pszText behind it; null at the end.
char* OsCfgNextLine(char** a_pszText);

// Looks up a key of the common settings file, which the first lookup of the process loads. Returns the default when the
// key is null, empty or absent, or there is no file; a null default means "". Thread-safe. Lookups made by the loading
// code itself get the default.
const char* OsCfgCommonGet(const char* a_szKey, const char* a_szDefault, bool* a_pblFound = nullptr);
bool OsCfgCommonIsYes(const char* a_szKey, const char* a_szDefault);

// The brand record, built by the first lookup: the value of a name without regard to case, "" for none. "brandxml"
// is the whole document.
const char* OsCfgBrand(const char* a_szName);
inline constexpr size_t OS_BRANDNAMESIZE = 64;
const char* OsCfgBrandEntry(size_t a_sizetIndex, const char** a_pszValue);   // null past the end
const char* OsCfgBrandWord();                                                // the short name, or the maker's default
const char* OsCfgBrandFolder();                                              // the name of the brand's folders

enum EOSSPECIALFOLDER : uint32_t
{
    OS_SPECIALFOLDER_CURRENTUSER_APPDATA = 1,   // the local or the roaming one, depending on the common settings
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

// Resolves a special folder by number. EOSSTS_FAIL, with an empty path, for an unknown number or when the system has no
// such folder.
EOSSTS OsCfgSpecialFolder(char* a_szPath, size_t a_sizetPath, uint32_t a_u32SpecialFolder);

// The identifier's name; "OS_PATH_010" for a number without one.
const char* OsCfgPathName(uint32_t a_u32Path);

// The path of an identifier. Most are computed once per process; those that depend on tags are empty without a
// configuration. EOSSTS_FAIL, with an empty path, if it does not resolve. Thread-safe.
EOSSTS OsCfgResolvePath(EOSPATH a_eospath, char* a_szPath, size_t a_sizetPath);

// Appends components to a path in a buffer of OS_PATHSIZE bytes. Empty components are skipped. A path that does not fit
// becomes empty, and an empty path stays empty.
void OsCfgPathJoin(char* a_szPath, std::initializer_list<const char*> a_components);

// Also true for the folder itself. Both paths must be normalised.
bool OsCfgPathLiesBelow(const char* a_szPath, const char* a_szFolder);

// The path of const.ini in a folder, in a buffer of OS_PATHSIZE bytes. If only "const.ini.txt" exists, it is renamed;
// if that fails, its own path is returned. Empty for an empty folder.
void OsCfgConstIni(char* a_szPath, const char* a_szFolder);

// The folder of the model's profiles, or its replacement from MVR_PROFILESDIR. EOSSTS_FAIL, with an empty path, if
// there is none.
EOSSTS OsCfgProfilesFolder(char* a_szPath, size_t a_sizetPath);

// Models by name (without regard to case), at most 64, and whether their logs roam with the user. Setting fails when
// the table is full and for an empty name or one of 64 or more characters.
inline constexpr size_t OS_MODELFLAGS = 64;
struct OsCfgModelFlag
{
    char szModel[64];
    bool blRoaming;
};
bool OsCfgSetModelFlag(const char* a_szModel, bool a_blRoaming);
bool OsCfgModelFlagAt(size_t a_sizetIndex, OsCfgModelFlag* a_poscfgmodelflag);   // false past the end

// Moves a log path, in place, from the writeable root to the roaming folder if the model (null or empty: the model of
// the arguments) roams. For paths that are sent to another process.
void OsCfgLocalLogPath(char* a_szPath, size_t a_sizetPath, const char* a_szModel);

// The name of a profile in the protected layout (a_blDebug: the name of its diagnostic companion), or the name itself.
// EOSSTS_FAIL, with an empty name, when there is none or it does not fit.
EOSSTS OsCfgProfileMap(const char* a_szFile, bool a_blDebug, char* a_szMapped, size_t a_sizetMapped);

// The file that serves a request. EOSSTS_FAIL, with an empty path, when there is none or the path does not fit.
EOSSTS OsCfgProfileResolve(const char* a_szFile, const char* a_szSection, const char* a_szKey, char* a_szResolved,
                           size_t a_sizetResolved);

// The required prefix of section headers in protected and unprotected INI files, "" for none. Computed once per process
// from the arguments.
const char* OsCfgSectionPrefix();

// Facts about the machine, gathered by the first query of the process and cached.
const char* OsCfgInfoString(EOSCFGINFO a_eoscfginfo);
int64_t OsCfgInfoLong(EOSCFGINFO a_eoscfginfo);
void OsCfgInfoTellNames();         // logs the host and the system volume, once per process
bool OsCfgIsService();             // the process is in the services session
bool OsCfgIsCertificationHost();   // a test of the system's image-acquisition service hosts this process
const char* OsCfgUserName();       // item OS_CFGINFO_OS_USERNAME

// The last logged-on user, as recorded by a process in the user's session. False, with an empty name, if none is
// recorded.
bool OsCfgLastUser(char* a_szName, size_t a_sizetName);

// The name of a system, and its id, for a version record.
inline constexpr size_t OS_SYSTEMNAMESIZE = 32;
void OsCfgNameSystem(const PlatVersion& a_platversion, char* a_szName, size_t a_sizetName, uint32_t* a_pu32Id);

// A record that is created by the first query of the process and never freed. No lock is held while it is created,
// because creating it may log, and the logger's header may query it again. If two threads create it, the first one to
// finish wins, and a_tell is called once for its record. Returns null if a_make returned null, and an empty record if
// it ran out of memory; the next query retries.
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

// True when the environment asks for the support report and logging is not off for the process.
bool OsCfgIsReportWanted();

enum class OsCfgLoadMode : uint32_t
{
    Path,          // the given file
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

    // Starts the management thread if it is enabled.
    void StartManagement();

    // Ends the management thread. The configuration can still be read.
    void StopManagement();

    // The defaults procedure. Logs "SetDirectories failed..." and leaves every tag empty when the directory set cannot
    // be computed.
    void Load();

    void ManageLogDirectories(const char* a_szLogFolder, const COsThread* a_posthread);
    EOSSTS WriteReport();

    OsCfgTable m_oscfgtable;

    // The constructor's arguments.
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

    // Initial values of tags that depend on a debugger or on the kind of program.
    char m_szLogDebug[16] = {};
    char m_szLogFilter[128] = {};
    char m_szDebugDisplayLength[16] = {};
    char m_szForceUsbMonitorTimeout[16] = {};
    char m_szUiTimeout[16] = {};
    char m_szUnitsBehavior[16] = {};
    char m_szSaneTwainVersion[32] = {};

    // The text of the INI files; the table's values point into it. Null for a file that was not read.
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

    // The directory set, in this order; SetDirectories is false when there is no folder to write to.
    // os_coscfg_directories.cpp.
    bool SetDirectories();
    void SetProgram();
    void SetRoots();
    void SetFolders();
    void SetLogFolder();
    void SetConstIniNames();
    bool CreateFolders() const;   // false if the log folder cannot be created
    bool UsesOthersLog() const;
    void FindLogModel(char* a_szModel, size_t a_sizetModel) const;

    void LockOwnFolder(const COsThread* a_posthread);   // os_coscfg_manage.cpp

    void StoreSaneTwainVersion();
    void FindApplication();
    void StoreHostProgram();
    void Store(EOSCFGTAG a_eoscfgtag, const char* a_szValue);   // in the identity section
    long Number(EOSCFGTAG a_eoscfgtag) const;

    // Loads one INI file into the table; a_szPath is used only with OsCfgLoadMode::Path. EOSSTS_NOTFOUND when it cannot
    // be opened, EOSSTS_FAIL when it cannot be read.
    EOSSTS LoadIni(const char* a_szPath, std::unique_ptr<char[]>& a_szBuffer, OsCfgLoadMode a_oscfgloadmode);

    COsThread* m_posthreadManage = nullptr;
    std::mutex m_mutexLogFolder;
    COsLogFolderLock m_oslogfolderlock;   // lock of this process's own log folder
};
