// os_coscfg.h: the configuration of the process: tags, paths, facts about the machine.
//
// Created once, early in the start of the library. The constructor fills every tag with its default, applies the INI
// files, computes the directory set and starts the logger. Lower layers read through os_cfg.h.
#pragma once

#include "os_cfg.h"
#include "os_types.h"

class COsCfgImpl;

enum EOSCFGENTITY : uint32_t
{
    OS_CFGENTITY_UNDEFINED = 0,
    OS_CFGENTITY_APPLICATION = 1,
    OS_CFGENTITY_DRIVER = 2,
    OS_CFGENTITY_UTILITY = 3,
    OS_CFGENTITY_APPUTILITY = 4,
    OS_CFGENTITY_DLL = 5,
};

inline bool OsCfgIsUtility(EOSCFGENTITY a_eoscfgentity)
{
    return a_eoscfgentity == OS_CFGENTITY_UTILITY || a_eoscfgentity == OS_CFGENTITY_APPUTILITY;
}

// Names of additional sections or tags for INI files; a list ends with the number 1000.
struct OsCfgExtension
{
    uint32_t u32Number;   // above 1000
    const char* szName;
};

inline constexpr size_t OS_CFGVERSIONS = 7;

class COsCfg final : public COsCfgSource, public COsCfgService
{
public:
    struct CreateArgs
    {
        const char* szUniqueName = "";   // 63 characters
        EOSCFGENTITY eoscfgentity = OS_CFGENTITY_APPLICATION;
        // Major, minor, patch, build, day, month, year; 15 characters each.
        const char* aszVersion[OS_CFGVERSIONS] = {"00", "00", "00", "00", "00", "00", "0000"};
        bool blForceSetAccess = false;
        const char* szProgram = "";   // path of the application, "" to determine it
        bool blManageLater = false;   // StartManagement will be called

        // Both or neither; the lists must live as long as the configuration.
        const OsCfgExtension* aoscfgextensionSection = nullptr;
        const OsCfgExtension* aoscfgextensionTag = nullptr;
    };

    // Installs itself first, so that code called by the constructor can already read tags. Only one configuration may
    // exist at a time.
    explicit COsCfg(const CreateArgs& a_createargs);
    ~COsCfg();   // stops the folder management, releases the lock file
    COsCfg(const COsCfg&) = delete;
    COsCfg& operator=(const COsCfg&) = delete;

    // "" for a cell that is not set or does not exist. Without an implementation every operation logs "null impl..."
    // and returns an empty result.
    const char* GetString(EOSCFGSECTION a_eoscfgsection, EOSCFGTAG a_eoscfgtag) override;
    const char* InfoGetString(EOSCFGINFO a_eoscfginfo) override;
    int64_t InfoGetLong(EOSCFGINFO a_eoscfginfo) override;
    EOSSTS GetPath(EOSPATH a_eospath, char* a_szPath, size_t a_sizetPath) override;
    void ManageLogDirectories(const char* a_szLogFolder, const COsThread* a_posthread) override;

    // Stores the pointer, not a copy, and always in the identity section. The text must live as long as the
    // configuration.
    EOSSTS SetString(EOSCFGSECTION a_eoscfgsection, EOSCFGTAG a_eoscfgtag, const char* a_szValue) override;

    // Starts the thread that removes old log folders, if this process owns its services and MVR_CLEANLOGFOLDERS
    // (default "1") enables it. Call once; the constructor calls it unless blManageLater is set.
    void StartManagement();

    // Writes the support report. EOSSTS_CANNOTCREATE when its folder cannot be made, else the status of opening the
    // file.
    EOSSTS WriteReport();

    // False when the log folder could not be made.
    bool HasLogDirectory() const;

    bool IsUsable() const { return m_poscfgimpl != nullptr; }

private:
    COsCfgImpl* m_poscfgimpl;   // null only when its allocation failed
};

// The process's configuration, null if there is none.
COsCfg* OsCfgGet();

// Installs the reader of the common settings file for OsCfgGetCommon and the path resolver for OsCfgGetPath. Called
// first by the start of the library.
void OsCfgCommonInstall();

// Profiles: any INI file through a cache of the first 8,192 bytes of the 16 files used last. Thread-safe.

// EOSSTS_NOTFOUND when the file does not exist, EOSSTS_FAIL when it cannot be read or has no such key ("@0", "@1" ...:
// the line of that number in the section), EOSSTS_NOMEMORY when the value does not fit; the value is empty then.
EOSSTS OsCfgProfileRead(const char* a_szFile, const char* a_szSection, const char* a_szKey, char* a_szValue,
                        size_t a_sizetValue);

// Stores a value in the cache only; the write-back writes the file, and creates it if needed. Until then it is lost if
// another process changes the file. EOSSTS_NOTOPEN for an invalid section, key or value, EOSSTS_NOMEMORY when the file
// would exceed 8,192 bytes, EOSSTS_FAIL when it cannot be read.
EOSSTS OsCfgProfileWrite(const char* a_szFile, const char* a_szSection, const char* a_szKey, const char* a_szValue);

// Writes the stored values of one file, or of all (null or empty), atomically for readers. EOSSTS_FAIL for a file that
// is not cached or cannot be written, and, with the stored values dropped, for one that another process has changed
// since. For all files the result is always a success.
EOSSTS OsCfgProfileWriteBack(const char* a_szFile);
