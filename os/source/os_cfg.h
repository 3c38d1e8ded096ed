// os_cfg.h: read one setting by section and tag.
//
// Low floors read settings, and the configuration is built on files. So the reading lives here at the bottom, and the
// configuration installs itself from above. With no configuration every read has the empty answer that its comment
// states.
#pragma once

#include "os_types.h"

#include <atomic>

enum EOSCFGSECTION : uint32_t
{
    OS_CFGSECTION_DSIDENTITY = 1,
    OS_CFGSECTION_BRAND = 2,
    OS_CFGSECTION_SUPPORTEDSIZES = 3,
    OS_CFGSECTION_MVRALLDS = 4,
};

// The tags that the floors below the configuration read.
enum EOSCFGTAG : uint32_t
{
    OS_CFGTAG_ROOTCOMMONDIRECTORY = 3,
    OS_CFGTAG_ROOTCOMMONDIRECTORYLEGACY = 5,
    OS_CFGTAG_LOGDIRECTORY = 14,
    OS_CFGTAG_DEBUGSOCKETS = 41,
    OS_CFGTAG_FORCEMEMORYMAP = 88,
    OS_CFGTAG_FORCETHREADAFFINITY = 110,
    OS_CFGTAG_FORCENETKEEPALIVE = 168,
    OS_CFGTAG_FORCENETNODELAY = 169,
    OS_CFGTAG_FORCENETCLOSEDELAY = 170,
    OS_CFGTAG_FORCEHTTPSCLIENTCERTIFICATE = 192,
};

// What the configuration reports about the machine.
enum EOSCFGINFO : uint32_t
{
    OS_CFGINFO_PLATFORM = 1,
    OS_CFGINFO_WINDOWSVERSION = 2,
};

// What stands behind the reads.
class COsCfgSource
{
public:
    // Never null; lives as long as the configuration.
    virtual const char* GetString(EOSCFGSECTION a_eoscfgsection, EOSCFGTAG a_eoscfgtag) = 0;

    // Returns EOSSTS_SUCCESS, or EOSSTS_FAIL when the item cannot be read.
    virtual EOSSTS GetInfo(EOSCFGINFO a_eoscfginfo, int64_t* a_pi64Value) = 0;

    // Looks after the log folders around a_szLogFolder: what has expired goes. Runs on the calling thread.
    virtual void ManageLogDirectories(const char* a_szLogFolder) = 0;

protected:
    ~COsCfgSource() = default;   // owned by whoever installed it
};

// The process-wide configuration, null before it is installed and after it has gone.
extern std::atomic<COsCfgSource*> g_poscfgsource;

inline bool OsCfgExists()
{
    return g_poscfgsource.load(std::memory_order_acquire) != nullptr;
}

// A value of the identity section; the empty text without a configuration.
const char* OsCfgGetString(EOSCFGTAG a_eoscfgtag);

// The same as a number: decimal, hexadecimal after "0x", octal after "0"; 0 for what is no number.
long OsCfgGetLong(EOSCFGTAG a_eoscfgtag);

// EOSSTS_FAIL without a configuration.
EOSSTS OsCfgGetInfo(EOSCFGINFO a_eoscfginfo, int64_t* a_pi64Value);

// Does nothing without a configuration.
void OsCfgManageLogDirectories(const char* a_szLogFolder);
