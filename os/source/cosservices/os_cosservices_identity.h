// os_cosservices_identity.h: the identity of this program from its own document, its parent and its files. For the
// start of the library.
#pragma once

#include "os_coscfg.h"
#include "os_types.h"

struct OsServicesIdentity
{
    char szUniqueName[64];
    EOSCFGENTITY eoscfgentity;
    char szLogFile[OS_PATHSIZE];
    uint32_t u32Level;   // the logger's flags
    char szFilter[OS_PATHSIZE];
    bool blForceSetAccess;
    bool blInherit;   // its children get a document
    char aszVersion[OS_CFGVERSIONS][16];
};

// Parses the program's own document; values from the parent (os_cosarguments.h) have priority. False (logged) when the
// document has no name that is a valid file name.
bool OsServicesIdentify(const char* a_szDocument, OsServicesIdentity& a_osservicesidentity);

// A utility logs into the folder of the program that it works for, into a file with its own name.
void OsServicesLogInto(const char* a_szFolder, OsServicesIdentity& a_osservicesidentity);

// Reports on standard error, and in the log if there is one, why the start failed or there is no log.
void OsServicesTell(const char* a_szFormat, ...) OS_PRINTFLIKE(1, 2);

// Installs the procedures that supply resources, file version and set-up to the logger's header.
void OsServicesAnswerHeader();
