// os_cosstring.h: bounded copies and formatting, search and compare, versions.
//
// Every function logs a null pointer or a zero size and does nothing else. A text that does not fit is refused, never
// truncated; each function says what happens to the destination.
#pragma once

#include "os_types.h"

#include <cstdarg>

// Copies a_szSource. If it does not fit, the destination is empty.
void SStrCpy(char* a_szDestination, size_t a_sizetDestination, const char* a_szSource);

// Appends a_szSource. If it does not fit, the whole destination is empty.
void SStrCat(char* a_szDestination, size_t a_sizetDestination, const char* a_szSource);

// Formats. Returns the length, or -1 with the destination empty. In addition to the standard conversions: "%I64d",
// "%I32d" and "%Id" with every integer conversion, "%S" for 16-bit text, and "%p" as 16 upper-case hexadecimal digits.
int SStrPrintf(char* a_szDestination, size_t a_sizetDestination, const char* a_szFormat, ...) OS_PRINTFLIKE(3, 4);

// Formats at the end of the existing text. Returns the new total length, or -1 with nothing appended.
int SStrCatf(char* a_szDestination, size_t a_sizetDestination, const char* a_szFormat, ...) OS_PRINTFLIKE(3, 4);

int SStrVprintf(char* a_szDestination, size_t a_sizetDestination, const char* a_szFormat, va_list a_valist);

// The length of the formatted text, -1 on failure.
int StrVcprintf(const char* a_szFormat, va_list a_valist);

// The formatter shared by the functions above and the logger: truncates what does not fit, always terminates (size 0
// writes nothing), and returns the length of the whole text, or -1 for an unknown format. Never logs, never allocates.
int OsFormat(char* a_szDestination, size_t a_sizetDestination, const char* a_szFormat, va_list a_valist);

// Hides a format with "%S" from the compiler's check, which expects wchar_t text:
// OSLOG(OS_LOG_CHECK, OsWideFormat("not found...<%S>"), wszName).
inline const char* OsWideFormat(const char* a_szFormat)
{
    return a_szFormat;
}

// The same for 16-bit text; sizes in characters.
void SWcsCpy(char16_t* a_wszDestination, size_t a_sizetDestination, const char16_t* a_wszSource);
void SWcsCat(char16_t* a_wszDestination, size_t a_sizetDestination, const char16_t* a_wszSource);

// Writes a number in decimal; returns the destination.
char* SStrFromNum(char* a_szDestination, size_t a_sizetDestination, uint64_t a_u64Number);

// First occurrence of the pattern, ASCII letters compared without regard to case; null when absent. An empty
// pattern is found only in an empty text.
const char* StrIstr(const char* a_szText, const char* a_szPattern);

bool StrStartsWith(const char* a_szText, const char* a_szPrefix);    // exact
bool StrIStartsWith(const char* a_szText, const char* a_szPrefix);   // ASCII letters without regard to case

// False when the text is shorter than the suffix, and for an empty suffix with a text of two or more characters.
bool StrEndsWith(const char* a_szText, const char* a_szSuffix, bool a_blIgnoreCase);
bool WcsEndsWith(const char16_t* a_wszText, const char16_t* a_wszSuffix);   // exact

int StrICmp(const char* a_szLeft, const char* a_szRight);   // as strcmp, ASCII letters without regard to case

void StrLower(char* a_szText);                   // ASCII letters, in place
const char* StrFileName(const char* a_szPath);   // behind the last separator of either kind

// Copies without leading and trailing white space. If it does not fit, the destination is unchanged.
void SStrTrim(char* a_szDestination, size_t a_sizetDestination, const char* a_szSource);

// Replaces the first occurrence of a_szFind in place, or all. EOSSTS_NOSPACE (14) when there is none, EOSSTS_FAIL on
// overflow or null arguments; EOSSTS_SUCCESS otherwise, also for size 0 and an empty a_szFind.
EOSSTS SStrReplace(char* a_szText, size_t a_sizetText, const char* a_szFind, const char* a_szReplacement, bool a_blAll);

// "*" matches any run, "?" any one character. 0 on a match.
int StrWildcard(const char* a_szText, const char* a_szPattern, bool a_blIgnoreCase);

// Parses hexadecimal digits after an optional "0x", up to the first other character; 0 if there are none.
uint64_t StrHex(const char* a_szText);

// Parses leading decimal digits with an optional sign, after white space, up to the first other character. Out-of-range
// values give the nearest limit.
int32_t StrToInt32(const char* a_szText);
int64_t StrToInt64(const char* a_szText);

// Parses "1.2.3.4", or 8 digits as four fields of two. EOSSTS_NOTOPEN (3) for an invalid version, EOSSTS_FAIL for null
// arguments; the outputs are then 0.
EOSSTS StrVersionParse(const char* a_szText, uint32_t* a_pu32Major, uint32_t* a_pu32Minor, uint32_t* a_pu32Patch,
                       uint32_t* a_pu32Build);

// Writes a version with as many fields as needed, at least two; a text that is not a version is copied unchanged.
void SStrVersion(char* a_szDestination, size_t a_sizetDestination, const char* a_szText);
