// shared_collector.cpp: a collector for all applications without one of their own. It serves until its standard input
// ends.
//
//     shared_collector
//
// MVR_LOGCOLLECTOR names another port than 41114. Prints the announcement that applications use to find it. Exit code 1
// when it cannot serve, 2 when another shared collector is running.
#include "os_cfg.h"
#include "os_coslogcollector.h"
#include "os_coslogcollector_protocol.h"
#include "os_cosservices.h"
#include "os_log.h"

#include <cstdio>

static constexpr char g_szDocument[] = "<arguments><uniquename>shared_collector</uniquename>"
                                       "<entity>application</entity><loglevel>0</loglevel></arguments>";

static int Serve()
{
    COsLogCollector oslogcollector(OS_COLLECTORMODE_SHARED, "");
    const EOSSTS eossts = oslogcollector.Start(nullptr, true);
    if (eossts != EOSSTS_SUCCESS)
    {
        std::fputs(eossts == EOSSTS_BUSY ? "another shared collector is running\n" : "cannot serve\n", stderr);
        return eossts == EOSSTS_BUSY ? 2 : 1;
    }
    std::printf("%s\\%s\n", OsCfgGetString(OS_CFGTAG_ROOTCOMMONDIRECTORYLEGACY), OS_LC_ANNOUNCEMENTFILE);
    std::fflush(stdout);
    while (std::getchar() != EOF)
    {
    }
    return 0;
}

int main()
{
    OsLogSetState(OS_LOGSTATE_OFF);   // it has no log of its own and needs no collector
    OsServicesSetDocument(g_szDocument);
    if (OsServicesStart() != EOSSTS_SUCCESS)
        return 1;
    const int iResult = Serve();
    OsServicesStop();
    return iResult;
}
