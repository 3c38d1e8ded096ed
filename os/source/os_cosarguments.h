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

// What this process was told about itself: by its own document, by its parent, by an override. "" for what it was not
// told. The texts change only while the library starts.
enum EOSARGUMENT : uint32_t
{
    OS_ARGUMENT_UNIQUENAME = 0,   // of the program
    OS_ARGUMENT_CALLERSUNIQUENAME,
    OS_ARGUMENT_OVERRIDEFOLDER,
    OS_ARGUMENT_MODELDIRECTORY,
    OS_ARGUMENT_LOGPATH,
    OS_ARGUMENT_LOGLEVEL,
    OS_ARGUMENT_LOGFILTER,
    OS_ARGUMENT_LOGMODEL,
    OS_ARGUMENT_DRVLETIDENTITY,
    OS_ARGUMENT_APPLICATION,
    OS_ARGUMENT_ROOTPATH,
    OS_ARGUMENT_LEGACYROOTPATH,
    OS_ARGUMENT_USERROOTPATH,
    OS_ARGUMENT_LAST,
};
const char* OsArgumentsGet(EOSARGUMENT a_eosargument);
void OsArgumentsSet(EOSARGUMENT a_eosargument, const char* a_szValue);   // at most 511 characters
