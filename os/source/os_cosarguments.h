// os_cosarguments.h: what a process of the family passes to its children through the environment.
//
// Variables whose value is invalid text, too long or incomplete are ignored. The document and the texts change only
// while the library starts and stops, on one thread.
#pragma once

#include "os_types.h"

inline constexpr size_t OS_ARGUMENTSSIZE = 4096;   // of the arguments document

// What OsArgumentsClear clears; bits may be combined.
inline constexpr uint32_t OS_CLEARARGUMENTS_DOCUMENT = 0x1;      // the document of this process
inline constexpr uint32_t OS_CLEARARGUMENTS_THREAD = 0x2;        // the calling thread's variables, and the general
                                                                 // ones when this process owns the services
inline constexpr uint32_t OS_CLEARARGUMENTS_GENERAL = 0x4;       // with THREAD: the general ones in any case
inline constexpr uint32_t OS_CLEARARGUMENTS_ENVIRONMENT = 0x8;   // every inherited variable of the family
inline constexpr uint32_t OS_CLEARARGUMENTS_COLLECTOR = 0x10;    // the collector's identity, in the document too

// After ENVIRONMENT no variable of the family is in the environment that children inherit.
void OsArgumentsClear(uint32_t a_u32Bits);

// Removes the calling thread's own document variables; called when a thread ends. Thread-safe.
void OsArgumentsClearThread();

// Reads the environment of this process, once: override, driver-let information, inherited document. Decides whether
// the process owns the services, and fills the values below. Called by the start of the library.
void OsArgumentsIntake();

// Copies the document that a parent left in the environment, "" if there is none. With a null buffer it becomes the
// document of this process. The calling thread's variable has priority over the general one; a document that does not
// fit is ignored. EOSSTS_SUCCESS, or EOSSTS_NOMEMORY for one that does not fit.
EOSSTS OsArgumentsRead(char* a_szDocument, size_t a_sizetDocument);

// True when the environment held an override that names this process.
bool OsArgumentsHasOverride();

// The document of this process ("" if it has none) and the name of the variable that it came from.
const char* OsArgumentsDocument();
const char* OsArgumentsVariable();

// Builds the document for this process's children, unless the program's own document forbids inheriting. Values come
// from the configuration; the arguments are used for those that it does not have. EOSSTS_SUCCESS, or EOSSTS_NOMEMORY
// when the document does not fit (it is then "").
struct OsArgumentsBuildArgs
{
    const char* szLogDirectory = "";
    const char* szModelDirectory = "";   // "": the document has no model
    const char* szLogLevel = nullptr;    // the logger's working word
    const char* szRootPath = "";
    const char* szLegacyRootPath = "";
    bool blFromInterfaceOpen = false;
};
EOSSTS OsArgumentsBuild(const OsArgumentsBuildArgs& a_osargumentsbuildargs);

// False if the program's own document forbids inheriting: OsArgumentsBuild then builds no document, none is published,
// and the parent's variables are removed from the environment, so that children inherit nothing.
void OsArgumentsSetInherit(bool a_blInherit);

// With hold: takes the arguments lock, puts the document into the environment that children inherit, and returns with
// the lock held, so that the environment does not change until the child exists; on an exception the lock is released.
// Without: releases the lock. Thread-safe.
void OsArgumentsPublish(bool a_blHold);
void OsArgumentsPublishNow();   // takes the lock, puts the document into the environment, and releases the lock

// Stores the collector's identity in the document of this process.
void OsArgumentsUpdateCollector();

// The collector that this process's logger uses, and whether this process owns the services of its application. Zero
// and false until the library's start has set them.
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

// The identity of this process from its own document, its parent or an override. "" if unknown.
enum EOSARGUMENT : uint32_t
{
    OS_ARGUMENT_UNIQUENAME = 0,   // the program's
    OS_ARGUMENT_CALLERSUNIQUENAME,
    OS_ARGUMENT_OVERRIDEFOLDER,
    OS_ARGUMENT_MODELDIRECTORY,
    OS_ARGUMENT_LOGPATH,
    OS_ARGUMENT_LOGLEVEL,
    OS_ARGUMENT_LOGFILTER,
    OS_ARGUMENT_LOGMODEL,
    OS_ARGUMENT_DRVLETIDENTITY,
    OS_ARGUMENT_APPLICATION,   // a driver-let's
    OS_ARGUMENT_ROOTPATH,
    OS_ARGUMENT_LEGACYROOTPATH,
    OS_ARGUMENT_USERROOTPATH,
    OS_ARGUMENT_CALLERSAPPLICATION,
    OS_ARGUMENT_LAST,
};
const char* OsArgumentsGet(EOSARGUMENT a_eosargument);
void OsArgumentsSet(EOSARGUMENT a_eosargument, const char* a_szValue);   // at most 511 characters

// The flags of MVR_DEBUG, which are always added to the logger's flags; 0 while logging is off for the process.
uint32_t OsArgumentsDebugFlags();

// The paths of the program and of the module that contains this library, in the system's form. "" when the path is
// unknown or does not fit. The buffer has OS_PATHSIZE bytes.
void OsArgumentsProgramPath(char* a_szPath);
void OsArgumentsModulePath(char* a_szPath);

// The module's name: its file name in lower case, up to the first dot and without "wia.dll".
void OsArgumentsModuleName(char* a_szName, size_t a_sizetName);
