// os_cosservices.h: start and stop of the library.
#pragma once

#include "os_types.h"

// Sets the program's own document with its identity; the text must live as long as the process. Call before the start.
// Without one the program is a private collector:
//
//   <arguments>
//       <uniquename>logcollector</uniquename>   63 bytes; "*": the name of the program's or driver's file
//       <entity>application</entity>            driver, utility, apputility, dll
//       <loglevel>0</loglevel>                  flags of the logger (os_coslog.h)
//   </arguments>
//
// Optional: <logfile>, <logfilter>, <forcesetaccess>true</forcesetaccess>, <inherit>false</inherit> (children inherit
// nothing) and <version> with <major>, <minor>, <patch>, <build>, <day>, <month> and <year>.
void OsServicesSetDocument(const char* a_szDocument);

// Starts the library: inherited arguments, memory manager, collector, logger, configuration, thread affinity. Does
// nothing if it is already started. After a stop it can be started again, with a new collector and a new log. Call it
// on the main thread before any other thread uses the library. EOSSTS_SUCCESS; EOSSTS_FAIL, with nothing started, when
// there is no memory, when the document has no usable name, or when there is no path for the log because the user has
// no home. Standard error reports that, and also a log folder that cannot be made.
// A thread removes old log folders, from now or, with a_blManageLater, from OsServicesManage on: a program with a
// waiting user can do that later.
EOSSTS OsServicesStart(bool a_blManageLater = false);
void OsServicesManage();

// Frees what the start made, in reverse order, and removes all variables of the family from the environment, so that
// later children inherit none. Does nothing without a start. Call it when no other thread uses the library any more.
void OsServicesStop();
