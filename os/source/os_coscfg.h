// os_coscfg.h: the configuration of the process: tags, paths, facts about the machine.
//
// It is created once, early in the start of the library. Its construction fills every tag with its default, applies
// the INI files, computes the directory set and starts the logger. Readers on lower floors go through os_cfg.h.
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

// Names of further sections, or of further tags, that INI files may hold; a list ends with the number 1000.
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
        const char* szProgram = "";   // the path of the application, "" to find out
        bool blManageLater = false;   // StartManagement will be called

        // Both or none; the lists live as long as the configuration.
        const OsCfgExtension* aoscfgextensionSection = nullptr;
        const OsCfgExtension* aoscfgextensionTag = nullptr;
    };

    // Installs itself before anything else runs, so that what the construction calls can read tags already. One
    // configuration exists at a time.
    explicit COsCfg(const CreateArgs& a_createargs);
    ~COsCfg();   // stops the folder management, releases the lock file
    COsCfg(const COsCfg&) = delete;
    COsCfg& operator=(const COsCfg&) = delete;

    // The empty text for a cell that is not set or does not exist. Without an implementation every operation logs
    // "null impl..." and has an empty result.
    const char* GetString(EOSCFGSECTION a_eoscfgsection, EOSCFGTAG a_eoscfgtag) override;
    const char* InfoGetString(EOSCFGINFO a_eoscfginfo) override;
    int64_t InfoGetLong(EOSCFGINFO a_eoscfginfo) override;
    EOSSTS GetPath(EOSPATH a_eospath, char* a_szPath, size_t a_sizetPath) override;
    void ManageLogDirectories(const char* a_szLogFolder, const COsThread* a_posthread) override;

    // Stores the pointer, not a copy, in the identity section, whatever section is named. The text must live as long
    // as the configuration.
    EOSSTS SetString(EOSCFGSECTION a_eoscfgsection, EOSCFGTAG a_eoscfgtag, const char* a_szValue) override;

    // Lets a thread look after the log folders, when this process owns its services and MVR_CLEANLOGFOLDERS (default
    // "1") says so. Once; the construction calls it unless it was told not to.
    void StartManagement();

    // Writes the support report. EOSSTS_CANNOTCREATE when its folder cannot be made, else the status of its open.
    EOSSTS WriteReport();

    // False when the log folder could not be made.
    bool HasLogDirectory() const;

    bool IsUsable() const { return m_poscfgimpl != nullptr; }

private:
    COsCfgImpl* m_poscfgimpl;   // null only when its allocation failed
};

// The process's configuration, null without one.
COsCfg* OsCfgGet();

// Lets OsCfgGetCommon read the common settings file, and OsCfgGetPath resolve without a configuration what needs none.
// The start of the library calls it first of all.
void OsCfgCommonInstall();

// Profiles: any INI file through the cache, which keeps the first 8,192 bytes of the last 16 files. Any thread.

// EOSSTS_NOTFOUND when the file does not exist, EOSSTS_FAIL when it cannot be read or has no such key ("@0", "@1" ...:
// the line of that number in the section), EOSSTS_NOMEMORY when the value does not fit; the value is empty then.
EOSSTS OsCfgProfileRead(const char* a_szFile, const char* a_szSection, const char* a_szKey, char* a_szValue,
                        size_t a_sizetValue);

// Stores a value in the cache alone; the write-back brings it to the file, and makes one that does not exist. Until
// then it is lost when another party changes the file. EOSSTS_NOTOPEN for what is no section, key or value,
// EOSSTS_NOMEMORY when the file would have more than 8,192 bytes, EOSSTS_FAIL when it cannot be read.
EOSSTS OsCfgProfileWrite(const char* a_szFile, const char* a_szSection, const char* a_szKey, const char* a_szValue);

// Writes what was stored for a file, or for all (null or empty): readers find the old text or the new one. EOSSTS_FAIL
// for one that is not in the cache or cannot be written, and, with what was stored dropped, for one that another party
// has changed since; all of them is always a success.
EOSSTS OsCfgProfileWriteBack(const char* a_szFile);
