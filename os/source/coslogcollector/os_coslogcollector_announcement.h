// os_coslogcollector_announcement.h: the file by which a shared collector is found. The collector keeps its first byte
// locked for life; a client that can lock the byte has found a stale file.
#pragma once

#include "os_types.h"

class COsFile;

void OsLcAnnouncementPath(char* a_szPath);   // OS_PATHSIZE bytes

// An announcement is accepted when it is a file, not a link, of our user or root.

// True when a shared collector is already running.
bool OsLcOtherSharedRuns();

// Creates the announcement in a_osfile, which must stay open. Host and port as text. False, and logged, also when
// another user's file exists there.
bool OsLcAnnounce(COsFile& a_osfile, const char* a_szPath, const char* a_szHost, const char* a_szPort);

// Returns host and port (OS_LC_HOSTSIZE and OS_LC_PORTSIZE bytes) of the shared collector. EOSSTS_BUSY for a stale
// announcement, which is deleted; EOSSTS_FAIL without one.
EOSSTS OsLcFindShared(char* a_szHost, char* a_szPort);
