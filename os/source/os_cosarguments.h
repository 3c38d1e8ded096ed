// os_cosarguments.h: what a process of the family hands down to its children through the environment.
//
// A variable whose value is not text, too long or cut is ignored.
// The document and the texts change only while the library starts and stops, on one thread.
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

// The variables that carry a document for the calling thread alone: a thread that ends takes them along. Any thread.
void OsArgumentsClearThread();

// Takes in, once in the life of a process, what the environment holds for it: override, driver-let information,
// inherited document; decides whether the process owns the services; fills the values below. By the library's start.
void OsArgumentsIntake();

// Fills the buffer with the document that a parent left in the environment, "" when there is none. A null buffer means
// the document of this process. The variable of the calling thread goes before the general one; a document that does
// not fit counts as absent. EOSSTS_SUCCESS, EOSSTS_NOMEMORY for one that does not fit.
EOSSTS OsArgumentsRead(char* a_szDocument, size_t a_sizetDocument);

// True when the environment held an override that names this process.
bool OsArgumentsHasOverride();

// The document of this process ("" when it has none) and the name of the variable that it came from.
const char* OsArgumentsDocument();
const char* OsArgumentsVariable();

// Writes the document of this process, for its children. Nothing happens when the program's own document forbids
// inheriting. Values that a configuration has come from there, the given ones stand in for one that is absent.
// EOSSTS_SUCCESS, EOSSTS_NOMEMORY when the document does not fit (it is "" then).
struct OsArgumentsBuildArgs
{
    const char* szLogDirectory = "";
    const char* szModelDirectory = "";   // "": the document without a model
    const char* szLogLevel = nullptr;    // sets the logger's working word
    const char* szRootPath = "";
    const char* szLegacyRootPath = "";
    bool blFromInterfaceOpen = false;
};
EOSSTS OsArgumentsBuild(const OsArgumentsBuildArgs& a_osargumentsbuildargs);

// Forbids (a program whose own document says so) that OsArgumentsBuild writes a document and that one is published, and
// takes what the parent has left for us out of the environment: children get nothing.
void OsArgumentsSetInherit(bool a_blInherit);

// With hold: takes the arguments lock, puts the document into the environment that children inherit, and returns with
// the lock held, so that the environment stays as it is until the child exists; an exception leaves the lock free.
// Without: releases the lock. Any thread.
void OsArgumentsPublish(bool a_blHold);
void OsArgumentsPublishNow();   // takes the lock, puts the document into the environment, and releases the lock

// Puts the collector's identity into the document of this process.
void OsArgumentsUpdateCollector();

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
// told.
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
    OS_ARGUMENT_APPLICATION,   // of a driver-let
    OS_ARGUMENT_ROOTPATH,
    OS_ARGUMENT_LEGACYROOTPATH,
    OS_ARGUMENT_USERROOTPATH,
    OS_ARGUMENT_CALLERSAPPLICATION,
    OS_ARGUMENT_LAST,
};
const char* OsArgumentsGet(EOSARGUMENT a_eosargument);
void OsArgumentsSet(EOSARGUMENT a_eosargument, const char* a_szValue);   // at most 511 characters

// The flags of MVR_DEBUG, which hold for the whole run beside whatever else sets the logger's flags; 0 while logging is
// off for the process.
uint32_t OsArgumentsDebugFlags();

// The files of this process, as the system writes them: the program, and the module that holds this library. "" when
// the path is unknown or does not fit. The buffer has OS_PATHSIZE bytes.
void OsArgumentsProgramPath(char* a_szPath);
void OsArgumentsModulePath(char* a_szPath);

// What the module is called after its file: in small letters, without what tells the kind of file.
void OsArgumentsModuleName(char* a_szName, size_t a_sizetName);
