// os_cosmem_encode.cpp: base64 and URL encoding.
#include "os_cosmem.h"

#include "os_log.h"

#include <array>
#include <cstring>

static constexpr char g_szSource[] = "os/source/os_cosmem";

// ------------------------------------------------------------------------------------------------------- base 64

static constexpr char g_szStandard[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
static constexpr char g_szUrlSafe[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";

static constexpr uint8_t OS_BASE64_ILLEGAL = 0xFF;

// The value of each character, for either alphabet.
static constexpr std::array<uint8_t, 256> g_au8Value = [] {
    std::array<uint8_t, 256> au8Value{};
    au8Value.fill(OS_BASE64_ILLEGAL);
    for (uint8_t u8 = 0; u8 < 64; ++u8)
    {
        au8Value[static_cast<unsigned char>(g_szStandard[u8])] = u8;
        au8Value[static_cast<unsigned char>(g_szUrlSafe[u8])] = u8;
    }
    return au8Value;
}();

EOSSTS Base64Encode(char* a_szDestination, size_t a_sizetDestination, size_t* a_psizetLength, const void* a_pvSource,
                    size_t a_sizetSource, bool a_blUrlSafe)
{
    if (!a_szDestination || !a_sizetDestination || !a_psizetLength || !a_pvSource || !a_sizetSource)
    {
        OSLOG(OS_LOG_ERROR, "bad argument...");
        return EOSSTS_FAIL;
    }
    *a_psizetLength = 0;
    std::memset(a_szDestination, 0, a_sizetDestination);
    const size_t sizetGroups = a_sizetSource / 3 + (a_sizetSource % 3 ? 1 : 0);
    if (sizetGroups > (a_sizetDestination - 1) / 4)
    {
        OSLOG(OS_LOG_ERROR, "destination overflow...%d %d", static_cast<int>(sizetGroups * 4),
              static_cast<int>(a_sizetDestination));
        return EOSSTS_FAIL;
    }

    const char* const szAlphabet = a_blUrlSafe ? g_szUrlSafe : g_szStandard;
    const auto* pu8 = static_cast<const uint8_t*>(a_pvSource);
    char* pch = a_szDestination;
    for (size_t sizetLeft = a_sizetSource; sizetLeft;)
    {
        const size_t sizetTaken = sizetLeft < 3 ? sizetLeft : 3;
        const uint32_t u32Bits =
            uint32_t{pu8[0]} << 16 | (sizetTaken > 1 ? uint32_t{pu8[1]} << 8 : 0) | (sizetTaken > 2 ? pu8[2] : 0u);
        *pch++ = szAlphabet[u32Bits >> 18];
        *pch++ = szAlphabet[(u32Bits >> 12) & 63];
        *pch++ = sizetTaken > 1 ? szAlphabet[(u32Bits >> 6) & 63] : '=';
        *pch++ = sizetTaken > 2 ? szAlphabet[u32Bits & 63] : '=';
        pu8 += sizetTaken;
        sizetLeft -= sizetTaken;
    }
    *a_psizetLength = static_cast<size_t>(pch - a_szDestination);
    return EOSSTS_SUCCESS;
}

// Returns the number of bytes, SIZE_MAX (logged) for an illegal character or when they do not fit.
static size_t DecodeAll(uint8_t* a_pu8, size_t a_sizetDestination, const char* a_pch, size_t a_sizetSource)
{
    size_t sizetLength = 0;
    uint32_t u32Bits = 0;
    uint32_t u32Count = 0;
    for (const char* const pchEnd = a_pch + a_sizetSource; a_pch != pchEnd && *a_pch != '='; ++a_pch)
    {
        const auto u8Character = static_cast<uint8_t>(*a_pch);
        const uint8_t u8Value = g_au8Value[u8Character];
        if (u8Value == OS_BASE64_ILLEGAL)
        {
            OSLOG(OS_LOG_ERROR, "illegal character...Base64-%d", u8Character);
            return SIZE_MAX;
        }
        u32Bits = u32Bits << 6 | u8Value;
        u32Count += 6;
        if (u32Count < 8)
            continue;
        u32Count -= 8;
        if (sizetLength == a_sizetDestination)
        {
            OSLOG(OS_LOG_ERROR, "destination overflow...%d %d", static_cast<int>(sizetLength + 1),
                  static_cast<int>(a_sizetDestination));
            return SIZE_MAX;
        }
        a_pu8[sizetLength++] = static_cast<uint8_t>(u32Bits >> u32Count);
    }
    return sizetLength;
}

EOSSTS Base64Decode(void* a_pvDestination, size_t a_sizetDestination, size_t* a_psizetLength, const char* a_szSource,
                    size_t a_sizetSource)
{
    if (!a_pvDestination || !a_sizetDestination || !a_psizetLength || !a_szSource)
    {
        OSLOG(OS_LOG_ERROR, "bad argument...%p %d %p %p", a_pvDestination, static_cast<int>(a_sizetDestination),
              static_cast<void*>(a_psizetLength), static_cast<const void*>(a_szSource));
        return EOSSTS_FAIL;
    }
    *a_psizetLength = 0;
    if (a_sizetSource % 4)
    {
        OSLOG(OS_LOG_ERROR, "a_iSrc is not a multiple of 3...%d", static_cast<int>(a_sizetSource));
        return EOSSTS_FAIL;
    }
    std::memset(a_pvDestination, 0, a_sizetDestination);
    const size_t sizetLength =
        DecodeAll(static_cast<uint8_t*>(a_pvDestination), a_sizetDestination, a_szSource, a_sizetSource);
    if (sizetLength == SIZE_MAX)
    {
        std::memset(a_pvDestination, 0, a_sizetDestination);
        return EOSSTS_FAIL;
    }
    *a_psizetLength = sizetLength;
    return EOSSTS_SUCCESS;
}

// ----------------------------------------------------------------------------------------------------------- URL

static bool IsPlain(uint8_t a_u8)
{
    return (a_u8 >= 'A' && a_u8 <= 'Z') || (a_u8 >= 'a' && a_u8 <= 'z') || (a_u8 >= '0' && a_u8 <= '9');
}

EOSSTS UrlEncode(char* a_szDestination, size_t* a_psizetLength, const void* a_pvSource, size_t a_sizetSource)
{
    if (!a_szDestination || !a_psizetLength || !a_pvSource)
    {
        OSLOG(OS_LOG_ERROR, "bad argument...%p %p %p", static_cast<void*>(a_szDestination),
              static_cast<void*>(a_psizetLength), a_pvSource);
        return EOSSTS_FAIL;
    }
    *a_psizetLength = 0;
    *a_szDestination = 0;
    if (a_sizetSource > (OS_URLSIZE - 1) / 3)
    {
        OSLOG(OS_LOG_ERROR, "destination is too small...%d %d", static_cast<int>(OS_URLSIZE),
              static_cast<int>(a_sizetSource));
        return EOSSTS_NOMEMORY;
    }
    static constexpr char szDigits[] = "0123456789ABCDEF";
    const auto* const pu8Source = static_cast<const uint8_t*>(a_pvSource);
    char* pch = a_szDestination;
    for (size_t sizet = 0; sizet < a_sizetSource; ++sizet)
    {
        const uint8_t u8 = pu8Source[sizet];
        if (IsPlain(u8))
        {
            *pch++ = static_cast<char>(u8);
            continue;
        }
        *pch++ = '%';
        *pch++ = szDigits[u8 >> 4];
        *pch++ = szDigits[u8 & 15];
    }
    *pch = 0;
    *a_psizetLength = static_cast<size_t>(pch - a_szDestination);
    return EOSSTS_SUCCESS;
}
