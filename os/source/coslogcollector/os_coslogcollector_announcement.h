// os_coslogcollector_announcement.h: the file by which a shared collector is found. It keeps the first byte locked for
// its whole life; who can lock that byte himself finds nobody.
#pragma once

#include "os_types.h"

class COsFile;

void OsLcAnnouncementPath(char* a_szPath);   // OS_PATHSIZE bytes

// An announcement counts when it is a file of our user or the system's; a link is none.

// True when a shared collector runs already.
bool OsLcOtherSharedRuns();

// Makes the announcement in a_osfile, which holds it as long as it is open. Host and port as text. False, and logged,
// also when another user's file is in the way.
bool OsLcAnnounce(COsFile& a_osfile, const char* a_szPath, const char* a_szHost, const char* a_szPort);

// Host and port (OS_LC_HOSTSIZE and OS_LC_PORTSIZE bytes) of the shared collector. EOSSTS_BUSY for the announcement of
// one that has gone, which is deleted; EOSSTS_FAIL without one.
EOSSTS OsLcFindShared(char* a_szHost, char* a_szPort);
