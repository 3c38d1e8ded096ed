// os_cosservices_identity.h: who this program is, as its own document, its parent and its files say. For the start of
// the library.
#pragma once

#include "os_coscfg.h"
#include "os_types.h"

struct OsServicesIdentity
{
    char szUniqueName[64];
    EOSCFGENTITY eoscfgentity;
    char szLogFile[OS_PATHSIZE];
    uint32_t u32Level;   // flags of the logger
    char szFilter[OS_PATHSIZE];
    bool blForceSetAccess;
    bool blInherit;   // its children get a document
    char aszVersion[OS_CFGVERSIONS][16];
};

// Reads the program's own document; what the parent gave (the values of os_cosarguments.h) goes before it. False, and
// logged, for a document without a name that a file can have.
bool OsServicesIdentify(const char* a_szDocument, OsServicesIdentity& a_osservicesidentity);

// A utility logs beside the program that it works for, into a file of its own name.
void OsServicesLogInto(const char* a_szFolder, OsServicesIdentity& a_osservicesidentity);

// Tells on standard error, and in a log that may be there, why there is no start or no log.
void OsServicesTell(const char* a_szFormat, ...) OS_PRINTFLIKE(1, 2);

// Has the logger's header find what the program's files say about it: resources, file version, set-up.
void OsServicesAnswerHeader();
