// os_coslocale.h: conversion between UTF-8 and UTF-16, and the table of languages.
#pragma once

#include "os_types.h"

// Converts the whole text into at most a_sizetDestination - 1 characters. Returns the number of characters including
// the terminator, or 0 (logged), with the destination empty, when the text does not fit or is invalid UTF-8.
size_t CopyStringFromUtf8(char16_t* a_wszDestination, size_t a_sizetDestination, const char* a_szText);

// Converts a_sizetLength characters (SIZE_MAX: up to the terminator). Returns the number of bytes without the
// terminator. With a null destination or a size of 0 returns the size needed, without the terminator. Returns 0
// (logged), with the destination empty, when the text does not fit or is invalid UTF-16.
size_t CopyStringToUtf8(char* a_szDestination, size_t a_sizetDestination, const char16_t* a_wszText,
                        size_t a_sizetLength);

struct OsLanguage
{
    const char* szKey;    // "en_usa"
    uint64_t u64Locale;   // the locale id in the low 32 bits, the code page in the high 32
    const char* szName;   // lower case
    const char* szDisplay;
    const char* szCulture;   // "en-US"
    uint32_t u32Group;       // row of the language's first key
    uint32_t u32Code;        // TWAIN language code, 16384 for none
};

inline constexpr uint32_t OS_LANGUAGECOUNT = 131;
inline constexpr uint32_t OS_LANGUAGE_ENUSA = 39;

const OsLanguage* OsLanguageGet(uint32_t a_u32Language);   // rows 0 to 131 and the end row; null beyond

// The row with the key a_szKey, compared without regard to case, 0 (logged) if there is none. Null gives the current
// language: the first value of "DefaultLanguage" that was found in the configuration, or row 39.
uint32_t OsLanguageGetId(const char* a_szKey);
