// plugin.cpp: a plug-in that logs.
#include <logcollector/logcollector.h>

extern "C" int Begin(const char* a_szName)
{
    const EOSSTS eossts = OsLogStart(a_szName);
    OSLOG_HERE(OS_LOG_WARNING, "%s says %d", a_szName, 12);
    return eossts == EOSSTS_SUCCESS ? 0 : 1;
}

extern "C" void End()
{
    OSLOG_HERE(OS_LOG_NOTE, "the end");
    OsLogStop();
}
