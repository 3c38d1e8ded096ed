// os_cosarguments_impl.h: shared by the sources of the class.
#pragma once

#include "os_cosarguments.h"

inline constexpr size_t OS_OVERRIDESIZE = 2048;   // size of the override document
inline constexpr size_t OS_VARIABLESIZE = 128;    // size of a variable's name

// The families of variables that carry a document: plain, in base64, as 16-bit text.
inline constexpr char OS_VARIABLE[] = "MVR_OSSERVICESARGUMENTS";
inline constexpr char OS_VARIABLEB64[] = "MVR_OSSERVICESARGUMENTSB64";
inline constexpr char OS_VARIABLEUNICODE[] = "MVR_OSSERVICESARGUMENTSUNICODE";

struct OsArgumentsTexts
{
    char szDocument[OS_ARGUMENTSSIZE];
    char szOverride[OS_OVERRIDESIZE];
    char szVariable[OS_VARIABLESIZE];   // the variable that the document came from
};
extern OsArgumentsTexts g_osargumentstexts;

// Builds the name of the family's variable for the calling thread.
void OsArgumentsThreadVariable(const char* a_szFamily, char (&a_szName)[OS_VARIABLESIZE]);

// Replaces the text of an element of this process's document, if the element exists.
void OsArgumentsReplace(const char* a_szElement, const char* a_szValue);
