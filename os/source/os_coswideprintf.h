// os_coswideprintf.h: formatting into 16-bit text.
#pragma once

#include <cstddef>

// SStrPrintf (os_cosstring.h) for 16-bit text; the size is in characters. The format and its "%s" are UTF-8.
int SWcsPrintf(char16_t* a_wszDestination, size_t a_sizetDestination, const char* a_szFormat, ...);
