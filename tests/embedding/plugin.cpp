// plugin.cpp: a plug-in that logs.
#include <logcollector/logcollector.h>

extern "C" int Run()
{
    if (OsLogStart("plugin") != EOSSTS_SUCCESS)
        return 1;
    OSLOG_HERE(OS_LOG_WARNING, "the plug-in says %d", 12);
    OsLogStop();
    return 0;
}
