// os_cosservices.h: start and stop of the library, in their fixed order.
#pragma once

#include "os_types.h"

// Starts the library: sockets, memory manager, thread affinity. Again is harmless. Called by the program's main
// thread before any other thread uses the library. EOSSTS_SUCCESS, or EOSSTS_FAIL when there is no memory.
EOSSTS OsServicesStart();

// Frees what the start made, in reverse order, and leaves no variable of the family in the environment. Called when
// no other thread uses the library any more.
void OsServicesStop();
