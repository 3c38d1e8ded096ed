// os_cosservices.h: start and stop of the library, in their fixed order.
#pragma once

#include "os_types.h"

// The program's own document, which says who it is; it must live as long as the process. Before the start. Without one
// the program is a private collector:
//
//   <arguments>
//       <uniquename>logcollector</uniquename>   63 bytes; "*": the name of the program's or driver's file
//       <entity>application</entity>            driver, utility, apputility, dll
//       <loglevel>0</loglevel>                  flags of the logger (os_coslog.h)
//   </arguments>
//
// and, as far as it wants them, <logfile>, <logfilter>, <forcesetaccess>true</forcesetaccess>,
// <inherit>false</inherit> (children are told nothing) and <version> with <major>, <minor>, <patch>, <build>, <day>,
// <month> and <year>.
void OsServicesSetDocument(const char* a_szDocument);

// Starts the library: what the parent process says, memory manager, collector, logger, configuration, thread affinity.
// While it is started nothing happens; after a stop it starts again, with a collector of its own and a new log.
// Called by the program's main thread before any other thread uses the library. EOSSTS_SUCCESS; EOSSTS_FAIL, and
// nothing is started, when there is no memory, for a document without a usable name, or when there is no path for its
// log, because the user has no home. Standard error tells so, and also when a log folder cannot be made.
// Old log folders are looked after by a thread of their own, now or when OsServicesManage is called: a program that
// somebody waits for has time for that later.
EOSSTS OsServicesStart(bool a_blManageLater = false);
void OsServicesManage();

// Frees what the start made, in reverse order, and leaves nothing in the environment that a child would take for its
// arguments. Without a start nothing happens. Called when no other thread uses the library any more.
void OsServicesStop();
