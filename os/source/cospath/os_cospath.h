// os_cospath.h: the text of paths.
//
// Either separator is accepted on input; the canonical one is "\". A leading "\\" is kept as two characters. Buffers
// have OS_PATHSIZE bytes where no size is given.
#pragma once

#include "os_types.h"

// Every run of "/" and "\" becomes one separator, in place. A path without either is not touched.
void OsPathNormalize(char* a_szPath, char a_chSeparator = '\\');

// Copies and normalises; what does not fit is logged and leaves the destination empty.
void OsPathCopy(char* a_szDestination, size_t a_sizetDestination, const char* a_szSource);

// Appends a separator and the component, which loses its drive letter, and normalises.
void OsPathAppend(char* a_szPath, size_t a_sizetPath, const char* a_szComponent);

// Normalises and splits at the last separator: the length of the folder (0 without one) and the file name.
void OsPathSplit(char* a_szPath, size_t* a_psizetFolder, const char** a_pszFilename);

// Normalises and ends the path before its last separator, so that its folder is left: "" for a name in the root and for
// one without a folder. False when there was no separator.
bool OsPathFolder(char* a_szPath);

void OsPathRemoveTrailing(char* a_szPath);   // trailing separators
void OsPathAppendExe(char* a_szPath, size_t a_sizetPath);
void OsPathAppendDll(char* a_szPath, size_t a_sizetPath);

// The full path of a name, normalised. EOSSTS_FAIL for a bad argument or when the system has none.
EOSSTS OsPathAbsolute(char* a_szAbsolute, size_t a_sizetAbsolute, const char* a_szName);

// Puts the long-path prefix before a path with a drive letter that has 240 characters or more, normalised, unless
// "." or ".." components are in it. In place; a_sizetPath is in characters.
void OsPathLong(char16_t* a_wszPath, size_t a_sizetPath);

// A UTF-8 path as the system takes it: converted and with the long-path rule. False (logged) when it is no UTF-8.
inline constexpr size_t OS_WIDEPATHSIZE = OS_PATHSIZE + 8;
bool OsPathToSystem(char16_t* a_wszPath, size_t a_sizetPath, const char* a_szPath);
