// os_cfg.h: read one setting by section and tag.
//
// Lower layers read settings, but the configuration is built on top of them. So the read functions are here, and the
// configuration installs itself from above. Without a configuration every read returns the empty value given at its
// declaration.
#pragma once

#include "os_cfg_tags.h"
#include "os_types.h"

#include <atomic>

enum EOSCFGSECTION : uint32_t
{
    OS_CFGSECTION_DSIDENTITY = 1,
    OS_CFGSECTION_BRAND = 2,
    OS_CFGSECTION_SUPPORTEDSIZES = 3,
    OS_CFGSECTION_MVRALLDS = 4,
};

// Every tag, OS_CFGTAG_HOMEDIRECTORY (1) to OS_CFGTAG_N50 (344).
enum EOSCFGTAG : uint32_t
{
    OS_CFGTAG_UNDEFINED = 0,
#define OS_CFGTAG_ENUMERATOR(tag_, name_, section_, default_) OS_CFGTAG_##tag_,
    OS_CFGTAG_LIST(OS_CFGTAG_ENUMERATOR)
#undef OS_CFGTAG_ENUMERATOR
    OS_CFGTAG_LAST,
};
static_assert(OS_CFGTAG_FORCENETKEEPALIVE == 168 && OS_CFGTAG_LAST == 345);

// Facts about the machine. An item is a text, a number, or both.
enum EOSCFGINFO : uint32_t
{
    OS_CFGINFO_UNDEFINED = 0,
    OS_CFGINFO_OS_BUILDSTRING = 1,
    OS_CFGINFO_OS_NAMESTRING = 2,
    OS_CFGINFO_OS_VERSIONSTRING = 3,
    OS_CFGINFO_OS_KERNELVERSIONSTRING = 4,
    OS_CFGINFO_OS_PLATFORM = 5,
    OS_CFGINFO_OS_MAJOR = 6,
    OS_CFGINFO_OS_MINOR = 7,
    OS_CFGINFO_OS_ID = 8,   // 10 and more: 6.0 and later; 12: 6.1
    OS_CFGINFO_OS_USERNAME = 9,
    OS_CFGINFO_MEM_TOTALPHYSICAL = 10,
    OS_CFGINFO_MEM_AVAILABLEPHYSICAL = 11,
    OS_CFGINFO_MEM_TOTALVIRTUAL = 12,
    OS_CFGINFO_MEM_AVAILABLEVIRTUAL = 13,
    OS_CFGINFO_MEM_TOTALPAGEFILE = 14,
    OS_CFGINFO_MEM_AVAILABLEPAGEFILE = 15,
    OS_CFGINFO_MEM_LOAD = 16,
    OS_CFGINFO_CPU_CACHESIZE = 17,
    OS_CFGINFO_CPU_FAMILY = 18,
    OS_CFGINFO_CPU_IS_3DNOW = 19,
    OS_CFGINFO_CPU_IS_FPU = 20,
    OS_CFGINFO_CPU_IS_HYPERTHREADING = 21,
    OS_CFGINFO_CPU_IS_MMX = 22,
    OS_CFGINFO_CPU_IS_POPCNT = 23,
    OS_CFGINFO_CPU_IS_SSE = 24,
    OS_CFGINFO_CPU_IS_SSE2 = 25,
    OS_CFGINFO_CPU_IS_SSE3 = 26,
    OS_CFGINFO_CPU_IS_SSE41 = 27,
    OS_CFGINFO_CPU_IS_SSE42 = 28,
    OS_CFGINFO_CPU_IS_SSE4A = 29,
    OS_CFGINFO_CPU_LEVEL = 30,
    OS_CFGINFO_CPU_MACHINEBITS = 31,
    OS_CFGINFO_CPU_MHZ = 32,
    OS_CFGINFO_CPU_MODELSTRING = 33,
    OS_CFGINFO_CPU_MODEL = 34,
    OS_CFGINFO_CPU_PROCESSBITS = 35,
    OS_CFGINFO_CPU_VENDORSTRING = 36,
    OS_CFGINFO_CPU_HYPERVENDORSTRING = 37,
    OS_CFGINFO_CPU_STEPPING = 38,
    OS_CFGINFO_CPU_TOTAL = 39,
    OS_CFGINFO_CPU_ARCHITECTURE = 40,
    OS_CFGINFO_VOLUME_DEVICEID = 41,
    OS_CFGINFO_VOLUME_SERIALNUMBER = 42,
    OS_CFGINFO_NETWORK_HOSTNAME = 43,
    OS_CFGINFO_OS_SERVICEPACK = 44,   // major times 100 plus minor
    OS_CFGINFO_OS_NAMERAWSTRING = 45,
    OS_CFGINFO_CPU_VENDORNAMESTRING = 46,
    OS_CFGINFO_LAST = 47,
};

// Files and folders of the directory layout. Only numbers with a name here resolve.
enum EOSPATH : uint32_t
{
    OS_PATH_UNDEFINED = 0,
    OS_PATH_READABLE_FILE_APPLICATION = 1,
    OS_PATH_READABLE_FILE_COMMON_CONSTINI = 2,
    OS_PATH_READABLE_FILE_PROTECTED_CONSTINI = 3,
    OS_PATH_READABLE_FILE_HVCFGMGREXE = 4,
    OS_PATH_READABLE_FILE_HVSCANNERSERVICEEXE = 5,
    OS_PATH_READABLE_FILE_LOGCOLLECTOREXE = 6,
    OS_PATH_READABLE_FILE_MAINPROGRAM = 7,
    OS_PATH_READABLE_FILE_MODULEPATH = 8,
    OS_PATH_READABLE_FOLDER_BRAND = 9,
    OS_PATH_WRITEABLE_FOLDER_MODELDIR_PROFILES_LEGACY = 54,
    OS_PATH_WRITEABLE_FILE_LOGCOLLECTORFLUSH = 63,
    OS_PATH_WRITEABLE_FILE_UNPROTECTED_DEBUGINI = 65,
    OS_PATH_WRITEABLE_FOLDER_ROOT = 66,
    OS_PATH_WRITEABLE_FOLDER_LEGACY = 67,
    OS_PATH_WRITEABLE_FOLDER_LOCAL = 68,
    OS_PATH_WRITEABLE_FOLDER_ROAMING = 69,
    OS_PATH_WRITEABLE_FOLDER_LOCALORROAMING = 70,
    OS_PATH_WRITEABLE_FOLDER_BRAND_LEGACY = 71,
    OS_PATH_WRITEABLE_FOLDER_BRAND_LOCAL = 72,
    OS_PATH_WRITEABLE_FOLDER_BRAND_ROAMING = 73,
    OS_PATH_WRITEABLE_FOLDER_BRAND_LOCALORROAMING = 74,
    OS_PATH_WRITEABLE_FOLDER_BRAND_SHARED = 75,
    OS_PATH_WRITEABLE_FOLDER_BRAND_USER = 76,
    OS_PATH_WRITEABLE_FOLDER_LOGCOLLECTOR = 81,
    OS_PATH_WRITEABLE_FOLDER_LOGDIRECTORYROOT = 82,
    OS_PATH_SPECIALFOLDER_CURRENTUSER_APPDATA = 117,   // the special folders in their order, to 133
    OS_PATH_SPECIALFOLDER_MYDOCUMENTS = 133,
    OS_PATH_LAST = 134,
};

class COsThread;

// Interface of the configuration that serves the reads.
class COsCfgSource
{
public:
    // Never null; lives as long as the configuration.
    virtual const char* GetString(EOSCFGSECTION a_eoscfgsection, EOSCFGTAG a_eoscfgtag) = 0;

    // Never null; "(nodata)" (logged) for an item without a text.
    virtual const char* InfoGetString(EOSCFGINFO a_eoscfginfo) = 0;

    // 0 (logged) for an item without a number.
    virtual int64_t InfoGetLong(EOSCFGINFO a_eoscfginfo) = 0;

    // EOSSTS_FAIL, with an empty path, for an identifier that does not resolve.
    virtual EOSSTS GetPath(EOSPATH a_eospath, char* a_szPath, size_t a_sizetPath) = 0;

protected:
    ~COsCfgSource() = default;   // owned by the code that installed it
};

// Further operations of the configuration for lower layers.
class COsCfgService
{
public:
    // Stores a value; the text must live as long as the configuration.
    virtual EOSSTS SetString(EOSCFGSECTION, EOSCFGTAG, const char*) { return EOSSTS_FAIL; }

    // Removes expired log folders around a_szLogFolder. Runs on the calling thread, and returns soon after a_posthread
    // (may be null) is asked to stop.
    virtual void ManageLogDirectories(const char* a_szLogFolder, const COsThread* a_posthread) = 0;

protected:
    ~COsCfgService() = default;   // owned by the code that installed it
};

// The process-wide configuration, null while none is installed.
extern std::atomic<COsCfgSource*> g_poscfgsource;
extern std::atomic<COsCfgService*> g_poscfgservice;

inline bool OsCfgExists()
{
    return g_poscfgsource.load(std::memory_order_acquire) != nullptr;
}

// A value of the identity section; "" without a configuration.
const char* OsCfgGetString(EOSCFGTAG a_eoscfgtag);

// The same as a number: decimal, hexadecimal after "0x", octal after "0"; 0 for any other text.
long OsCfgGetLong(EOSCFGTAG a_eoscfgtag);

// Stores a value of the identity section; the text must live as long as the configuration. Does nothing without one.
void OsCfgSetString(EOSCFGTAG a_eoscfgtag, const char* a_szValue);

// "(nodata)" and 0 without a configuration.
const char* OsCfgInfoGetString(EOSCFGINFO a_eoscfginfo);
int64_t OsCfgInfoGetLong(EOSCFGINFO a_eoscfginfo);

// Paths are needed before the configuration exists: a resolver that does not need it is installed here.
using OsCfgPathProc = EOSSTS (*)(EOSPATH a_eospath, char* a_szPath, size_t a_sizetPath);
extern std::atomic<OsCfgPathProc> g_poscfgpathproc;

// EOSSTS_FAIL, with an empty path, for an identifier that does not resolve, or when neither is installed.
EOSSTS OsCfgGetPath(EOSPATH a_eospath, char* a_szPath, size_t a_sizetPath);

// Does nothing without a configuration.
void OsCfgManageLogDirectories(const char* a_szLogFolder, const COsThread* a_posthread);

// A global switch of the common settings file: its value, or a_szDefault (never null) when the key or the file is
// absent. Needed before the configuration exists; the file's reader is installed here.
using OsCfgCommonProc = const char* (*)(const char* a_szKey, const char* a_szDefault);
extern std::atomic<OsCfgCommonProc> g_poscfgcommonproc;
const char* OsCfgGetCommon(const char* a_szKey, const char* a_szDefault);
