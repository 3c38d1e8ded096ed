// logcollector.cpp: the start of an application that says no more than its name.
#include "logcollector/logcollector.h"

#include "os_cosservices.h"
#include "os_cosstring.h"

EOSSTS OsLogStart(const char* a_szName)
{
    static char g_szDocument[256];
    if (!a_szName || SStrPrintf(g_szDocument, sizeof g_szDocument,
                                "<arguments><uniquename>%s</uniquename><entity>application</entity>"
                                "<loglevel>0</loglevel></arguments>",
                                a_szName) < 0)
        return EOSSTS_FAIL;
    OsServicesSetDocument(g_szDocument);
    return OsServicesStart();
}

void OsLogStop()
{
    OsServicesStop();
}
