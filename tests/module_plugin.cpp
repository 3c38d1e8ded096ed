// module_plugin.cpp: a driver module that the tests load: the library is linked into it, and starts in it.
#include "os_coscfg.h"
#include "os_coslog.h"
#include "os_cosservices.h"

#include <string>

static constexpr char g_szSource[] = "tests/module_plugin";

// Starts the library and logs a line. The text is the log file, and what the configuration says of the module. Valid
// until the next call.
extern "C" __attribute__((visibility("default"))) const char* ModuleStart()
{
    static std::string g_strText;
    OsServicesSetDocument("<arguments><uniquename>*</uniquename><entity>driver</entity><loglevel>1</loglevel>"
                          "</arguments>");
    if (OsServicesStart() != EOSSTS_SUCCESS)
        return "";
    OSLOG(OS_LOG_NOTE, "at work");
    g_strText = std::string(OsLogGet()->LogFile()) + "|" + OsCfgGetString(OS_CFGTAG_DRIVERNAME) + "|" +
                OsCfgGetString(OS_CFGTAG_DRIVERPATH) + "|" + OsCfgGetString(OS_CFGTAG_VERSIONBUILDNUM);
    return g_strText.c_str();
}

extern "C" __attribute__((visibility("default"))) void ModuleStop()
{
    OsServicesStop();
}
