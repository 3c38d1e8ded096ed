// os_cosarguments.h: what a process of the family hands down to its children through the environment.
#pragma once

#include "os_types.h"

// What OsArgumentsClear clears; bits may be combined.
inline constexpr uint32_t OS_CLEARARGUMENTS_ENVIRONMENT = 0x8;   // every inherited variable of the family

// Any thread. After a clear no variable of the family is in the environment that children inherit.
void OsArgumentsClear(uint32_t a_u32Bits);

// The collector that this process's logger uses, and whether this process owns the services of its application.
// Zero, and false, until a start of the library has found or made them.
struct OsCollectorIdentity
{
    int32_t i32Port;
    uint64_t u64ProcessIdApplication;
    uint64_t u64ProcessIdCollector;
};
OsCollectorIdentity OsArgumentsCollector();
void OsArgumentsSetCollector(const OsCollectorIdentity& a_oscollectoridentity);

bool OsArgumentsIsServicesOwner();
void OsArgumentsSetServicesOwner(bool a_blOwner);
