// os_cosenv.cpp: environment variables as UTF-8 text.
#include "os_cosenv.h"

#include "os_coslocale.h"
#include "os_cosstring.h"
#include "os_log.h"

#include "plat_env.h"

#include <cstring>
#include <memory>
#include <new>
#include <string_view>

static constexpr char g_szSource[] = "os/source/os_coscfg";

// A terminated 16-bit text with a built-in buffer, so that short texts need no allocation.
class WideText
{
public:
    char16_t* Data() { return m_wszLong ? m_wszLong.get() : m_wszShort; }
    size_t Size() const { return m_sizetSize; }

    // Provides a buffer for at least so many characters, including the terminator; the content is lost.
    bool Reserve(size_t a_sizetSize)
    {
        if (a_sizetSize <= m_sizetSize)
            return true;
        m_wszLong.reset(new (std::nothrow) char16_t[a_sizetSize]());
        m_sizetSize = m_wszLong ? a_sizetSize : OS_SHORTSIZE;
        return m_wszLong != nullptr;
    }

    // Converts a UTF-8 text, which never has fewer bytes than 16-bit characters.
    bool Assign(const char* a_szText)
    {
        return Reserve(std::strlen(a_szText) + 1) && CopyStringFromUtf8(Data(), Size(), a_szText) != 0;
    }

private:
    static constexpr size_t OS_SHORTSIZE = 512;
    char16_t m_wszShort[OS_SHORTSIZE] = {};
    std::unique_ptr<char16_t[]> m_wszLong;
    size_t m_sizetSize = OS_SHORTSIZE;
};

// ---------------------------------------------------------------------------------------------------------- read

// Reads the value, "" if unset. False (logged) when there is no memory.
static bool ReadValue(const char* a_szName, WideText& a_widetext)
{
    WideText widetextName;
    bool blMemory = widetextName.Reserve(std::strlen(a_szName) + 1);
    const bool blName = blMemory && widetextName.Assign(a_szName);

    // Retries: another thread may set a longer value between the two calls.
    size_t sizetLength = 0;
    while (blName && blMemory)
    {
        sizetLength = PlatEnvGet(widetextName.Data(), a_widetext.Data(), a_widetext.Size());
        if (sizetLength < a_widetext.Size())
            break;
        blMemory = a_widetext.Reserve(sizetLength + 1);
    }
    if (!blMemory)
        OSLOG(OS_LOG_ERROR, "calloc failed...<%s> %d", a_szName, static_cast<int>(sizetLength + 1));
    if (!blMemory || !sizetLength)
        *a_widetext.Data() = 0;
    return blMemory;
}

static EOSSTS CheckRead(const char* a_szName, size_t a_sizetValue, const char* a_szValue)
{
    if (!a_szName || !*a_szName)
    {
        OSLOG(OS_LOG_ERROR, "a_szEnvName is null or empty");
        return EOSSTS_NOTOPEN;
    }
    if (!a_szValue)
    {
        OSLOG(OS_LOG_ERROR, "a_szValue is null...<%s>", a_szName);
        return EOSSTS_NOTOPEN;
    }
    if (a_sizetValue <= 1)
    {
        OSLOG(OS_LOG_ERROR, "a_sizetBytes <= 1...<%s> %d", a_szName, static_cast<int>(a_sizetValue));
        return EOSSTS_NOTOPEN;
    }
    return EOSSTS_SUCCESS;
}

static EOSSTS CopyDefault(const char* a_szName, const char* a_szDefault, size_t a_sizetValue, char* a_szValue)
{
    if (!a_szDefault)
        return EOSSTS_SUCCESS;
    if (std::strlen(a_szDefault) >= a_sizetValue)
    {
        OSLOG(OS_LOG_ERROR, "GetEnv error...<%s> <%s> %d", a_szName, a_szDefault, static_cast<int>(a_sizetValue));
        return EOSSTS_NOMEMORY;
    }
    SStrCpy(a_szValue, a_sizetValue, a_szDefault);
    return EOSSTS_SUCCESS;
}

EOSSTS OsEnvGet(const char* a_szName, const char* a_szDefault, size_t a_sizetValue, char* a_szValue)
{
    if (a_szValue && a_sizetValue)
        *a_szValue = 0;
    if (const EOSSTS eossts = CheckRead(a_szName, a_sizetValue, a_szValue); eossts != EOSSTS_SUCCESS)
        return eossts;

    WideText widetext;
    if (!ReadValue(a_szName, widetext))
        return EOSSTS_NOMEMORY;
    const size_t sizetLength = CopyStringToUtf8(nullptr, 0, widetext.Data(), SIZE_MAX);
    if (!sizetLength)
        return CopyDefault(a_szName, a_szDefault, a_sizetValue, a_szValue);
    if (sizetLength >= a_sizetValue)
    {
        OSLOG(OS_LOG_ERROR, "GetEnv error, buffer too small...<%s> (%d > %d)", a_szName,
              static_cast<int>(sizetLength + 1), static_cast<int>(a_sizetValue));
        return EOSSTS_NOMEMORY;
    }
    CopyStringToUtf8(a_szValue, a_sizetValue, widetext.Data(), SIZE_MAX);
    return EOSSTS_SUCCESS;
}

int64_t OsEnvGetNumber(const char* a_szName, int64_t a_i64Default)
{
    char szValue[64] = {};
    const bool blSet = OsEnvGet(a_szName, "", sizeof szValue, szValue) == EOSSTS_SUCCESS && *szValue;
    return blSet ? StrToInt64(szValue) : a_i64Default;
}

// -------------------------------------------------------------------------------------------------------- change

EOSSTS OsEnvSet(const char* a_szName, const char* a_szValue)
{
    if (!a_szName || !*a_szName)
    {
        OSLOG(OS_LOG_ERROR, "SetEnv bad arg...");
        return EOSSTS_FAIL;
    }
    WideText widetextName;
    WideText widetextValue;
    const char* const szValue = a_szValue ? a_szValue : "";
    if (widetextName.Assign(a_szName) && widetextValue.Assign(szValue) &&
        PlatEnvSet(widetextName.Data(), widetextValue.Data()))
        return EOSSTS_SUCCESS;
    OSLOG(OS_LOG_ERROR, "SetEnv error...<%s> <%s>", a_szName, szValue);
    return EOSSTS_FAIL;
}

static char16_t Fold(char16_t a_wch)
{
    return a_wch >= u'A' && a_wch <= u'Z' ? static_cast<char16_t>(a_wch + (u'a' - u'A')) : a_wch;
}

static bool DeleteIfPrefixed(void* a_pvPrefix, const char16_t* a_wszName, const char16_t*)
{
    const auto* wszPrefix = static_cast<const char16_t*>(a_pvPrefix);
    const char16_t* wszName = a_wszName;
    while (*wszPrefix && Fold(*wszPrefix) == Fold(*wszName))
    {
        ++wszPrefix;
        ++wszName;
    }
    if (!*wszPrefix)
        PlatEnvSet(a_wszName, nullptr);
    return true;
}

void OsEnvDeletePrefix(const char* a_szPrefix)
{
    WideText widetextPrefix;
    if (!a_szPrefix || !*a_szPrefix || !widetextPrefix.Assign(a_szPrefix))
    {
        OSLOG(OS_LOG_ERROR, "SetEnv bad arg...");
        return;
    }
    PlatEnvList(DeleteIfPrefixed, widetextPrefix.Data());
}

// ---------------------------------------------------------------------------------------------------------- list

static std::string ToUtf8(const char16_t* a_wszText)
{
    std::string strText(CopyStringToUtf8(nullptr, 0, a_wszText, SIZE_MAX), '\0');
    CopyStringToUtf8(strText.data(), strText.size() + 1, a_wszText, SIZE_MAX);
    return strText;
}

struct Listing
{
    OsEnvVariables* posenvvariables;
    bool blMemory = true;
};

// Exceptions must not pass through the platform layer: they end the listing.
static bool AppendVariable(void* a_pvListing, const char16_t* a_wszName, const char16_t* a_wszValue)
{
    auto& listing = *static_cast<Listing*>(a_pvListing);
    try
    {
        listing.posenvvariables->emplace_back(ToUtf8(a_wszName), ToUtf8(a_wszValue));
    }
    catch (const std::bad_alloc&)
    {
        listing.blMemory = false;
    }
    return listing.blMemory;
}

EOSSTS OsEnvList(OsEnvVariables* a_posenvvariables)
{
    a_posenvvariables->clear();
    Listing listing{a_posenvvariables};
    if (PlatEnvList(AppendVariable, &listing) && listing.blMemory)
        return EOSSTS_SUCCESS;
    a_posenvvariables->clear();
    OSLOG(OS_LOG_ERROR, "allocation failed...");
    return EOSSTS_NOMEMORY;
}
