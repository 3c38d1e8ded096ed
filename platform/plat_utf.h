// plat_utf.h: one code point at a time, for everybody on either side of the layer who converts text.
#pragma once

#include "plat_types.h"

inline constexpr uint32_t PLAT_UTF_INVALID = 0xFFFFFFFFu;
inline constexpr uint32_t PLAT_UTF_REPLACEMENT = 0xFFFDu;   // stands where a character is that cannot be shown
inline constexpr size_t PLAT_UTF8_MAX = 4;                  // bytes of the longest character

// Takes a code point off terminated UTF-8 text, at least one byte and never the terminator of a cut character.
// PLAT_UTF_INVALID for what is no UTF-8, overlong forms and surrogates included.
inline uint32_t PlatUtf8Take(const char*& a_szText)
{
    constexpr uint32_t au32Least[] = {0, 0x80, 0x800, 0x10000};
    const uint32_t u32Lead = static_cast<unsigned char>(*a_szText++);
    if (u32Lead < 0x80)
        return u32Lead;
    if (u32Lead < 0xC2 || u32Lead > 0xF4)
        return PLAT_UTF_INVALID;
    const uint32_t u32Tail = u32Lead >= 0xF0 ? 3 : u32Lead >= 0xE0 ? 2 : 1;
    uint32_t u32Point = u32Lead & (0x3Fu >> u32Tail);
    for (uint32_t u32 = 0; u32 < u32Tail; ++u32)
    {
        const uint32_t u32Next = static_cast<unsigned char>(*a_szText);
        if ((u32Next & 0xC0) != 0x80)
            return PLAT_UTF_INVALID;
        u32Point = (u32Point << 6) | (u32Next & 0x3F);
        ++a_szText;
    }
    const bool blSurrogate = u32Point >= 0xD800 && u32Point <= 0xDFFF;
    return u32Point < au32Least[u32Tail] || u32Point > 0x10FFFF || blSurrogate ? PLAT_UTF_INVALID : u32Point;
}

// Writes a code point into a_pch (room for PLAT_UTF8_MAX); returns its bytes.
inline size_t PlatUtf8Put(char* a_pch, uint32_t a_u32Point)
{
    const auto Tail = [a_u32Point](int a_iShift) {
        return static_cast<char>(0x80 | ((a_u32Point >> a_iShift) & 0x3F));
    };
    if (a_u32Point < 0x80)
    {
        a_pch[0] = static_cast<char>(a_u32Point);
        return 1;
    }
    if (a_u32Point < 0x800)
    {
        a_pch[0] = static_cast<char>(0xC0 | (a_u32Point >> 6));
        a_pch[1] = Tail(0);
        return 2;
    }
    if (a_u32Point < 0x10000)
    {
        a_pch[0] = static_cast<char>(0xE0 | (a_u32Point >> 12));
        a_pch[1] = Tail(6);
        a_pch[2] = Tail(0);
        return 3;
    }
    a_pch[0] = static_cast<char>(0xF0 | (a_u32Point >> 18));
    a_pch[1] = Tail(12);
    a_pch[2] = Tail(6);
    a_pch[3] = Tail(0);
    return 4;
}

// Writes a code point into a_pwch (room for 2); returns its units.
inline size_t PlatUtf16Put(char16_t* a_pwch, uint32_t a_u32Point)
{
    if (a_u32Point < 0x10000)
    {
        a_pwch[0] = static_cast<char16_t>(a_u32Point);
        return 1;
    }
    a_pwch[0] = static_cast<char16_t>(0xD800 + ((a_u32Point - 0x10000) >> 10));
    a_pwch[1] = static_cast<char16_t>(0xDC00 + (a_u32Point & 0x3FF));
    return 2;
}

// Takes a code point off UTF-16 text that ends before a_pwchEnd. PLAT_UTF_INVALID for half a pair.
inline uint32_t PlatUtf16Take(const char16_t*& a_pwch, const char16_t* a_pwchEnd)
{
    const uint32_t u32High = *a_pwch++;
    if (u32High < 0xD800 || u32High > 0xDFFF)
        return u32High;
    if (u32High > 0xDBFF || a_pwch == a_pwchEnd || *a_pwch < 0xDC00 || *a_pwch > 0xDFFF)
        return PLAT_UTF_INVALID;
    return 0x10000 + ((u32High - 0xD800) << 10) + (*a_pwch++ - 0xDC00u);
}
