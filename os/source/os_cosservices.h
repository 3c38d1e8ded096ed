// os_cosservices.h: start and stop of the library, in their fixed order.
#pragma once

#include "os_types.h"

// What OsServicesClearArguments clears; bits may be combined.
inline constexpr uint32_t OS_CLEARARGUMENTS_ENVIRONMENT = 0x8;   // every inherited variable of the family

void OsServicesClearArguments(uint32_t a_u32Bits);

// Starts the library; again is harmless. Called by the program's main thread.
EOSSTS OsServicesStart();

// Frees what the start made, in reverse order.
void OsServicesStop();
