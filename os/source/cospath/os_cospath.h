// os_cospath.h: the text of paths.
//
// Either separator is accepted on input; the canonical one is "\". A leading "\\" is kept as two characters. Buffers
// have OS_PATHSIZE bytes where no size is given.
#pragma once

#include "os_types.h"

// Replaces every run of "/" and "\" by one separator, in place.
void OsPathNormalize(char* a_szPath, char a_chSeparator = '\\');

// Copies and normalises. What does not fit is logged, and the destination is then empty.
void OsPathCopy(char* a_szDestination, size_t a_sizetDestination, const char* a_szSource);

// Appends a separator and the component (without its drive letter), and normalises.
void OsPathAppend(char* a_szPath, size_t a_sizetPath, const char* a_szComponent);

// Normalises and splits at the last separator: the length of the folder (0 if there is none) and the file name.
void OsPathSplit(char* a_szPath, size_t* a_psizetFolder, const char** a_pszFilename);

// Normalises and removes the last separator and the file name: "" for a name in the root or without a folder. False
// when there was no separator.
bool OsPathFolder(char* a_szPath);

void OsPathRemoveTrailing(char* a_szPath);   // trailing separators
void OsPathAppendExe(char* a_szPath, size_t a_sizetPath);
void OsPathAppendDll(char* a_szPath, size_t a_sizetPath);

// The full path of a name, normalised. EOSSTS_FAIL for a bad argument or when the system cannot resolve it.
EOSSTS OsPathAbsolute(char* a_szAbsolute, size_t a_sizetAbsolute, const char* a_szName);

// Normalises a path with a drive letter and 240 characters or more and adds the long-path prefix, unless it contains
// "." or ".." components. In place; a_sizetPath is in characters.
void OsPathLong(char16_t* a_wszPath, size_t a_sizetPath);

// Converts a UTF-8 path to the system's form, with the long-path prefix if needed. False (logged) for invalid UTF-8.
inline constexpr size_t OS_WIDEPATHSIZE = OS_PATHSIZE + 8;
bool OsPathToSystem(char16_t* a_wszPath, size_t a_sizetPath, const char* a_szPath);
