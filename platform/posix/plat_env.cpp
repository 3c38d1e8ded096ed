// plat_env.cpp: the environment, which is the C library's own behind one lock.
#include "plat_env.h"
#include "plat_posix.h"

#include <cstdlib>
#include <cstring>
#include <ctime>
#include <mutex>
#include <new>
#include <pthread.h>
#include <unistd.h>
#include <utility>
#include <vector>

static std::mutex g_amutex[POSIX_LOCK_ENVIRONMENT + 1];

static void LockAll()
{
    for (std::mutex& mutex : g_amutex)
        mutex.lock();
}

static void UnlockAll()
{
    for (std::mutex& mutex : g_amutex)
        mutex.unlock();
}

PosixGuard::PosixGuard(PosixLock a_posixlock) : m_posixlock(a_posixlock)
{
    [[maybe_unused]] static const int g_iHooked = pthread_atfork(LockAll, UnlockAll, UnlockAll);
    g_amutex[m_posixlock].lock();
}

PosixGuard::~PosixGuard()
{
    g_amutex[m_posixlock].unlock();
}

static bool NameOf(const char16_t* a_wszName, std::string& a_strName)
{
    if (!a_wszName || !PosixToUtf8(a_wszName, a_strName))
        return PosixFail(a_wszName ? PLAT_ERROR_NOUNICODE : PLAT_ERROR_INVALIDPARAMETER);
    return (!a_strName.empty() && a_strName.find('=') == std::string::npos) || PosixFail(PLAT_ERROR_INVALIDPARAMETER);
}

bool PosixEnvGet(const char* a_szName, std::string& a_strValue)
{
    const PosixGuard posixguard(POSIX_LOCK_ENVIRONMENT);
    const char* szValue = getenv(a_szName);
    a_strValue = szValue ? szValue : "";
    return !a_strValue.empty();
}

// UTF-16 text has at most as many units as UTF-8 text has bytes.
static bool Widen(const std::string& a_strText, std::u16string& a_wstrText)
{
    a_wstrText.resize(a_strText.size() + 1);
    if (!PosixToWide(a_strText.c_str(), a_wstrText.data(), a_wstrText.size()))
        return false;
    a_wstrText.resize(std::char_traits<char16_t>::length(a_wstrText.c_str()));
    return true;
}

size_t PlatEnvGet(const char16_t* a_wszName, char16_t* a_wszValue, size_t a_sizetValue)
try
{
    std::string strName;
    std::string strValue;
    std::u16string wstrValue;
    if (!NameOf(a_wszName, strName))
        return 0;
    if (!PosixEnvGet(strName.c_str(), strValue))
    {
        PlatSetLastError(PLAT_ERROR_ENVVARNOTFOUND);
        return 0;
    }
    if (!Widen(strValue, wstrValue))
        return 0;
    if (wstrValue.size() < a_sizetValue)
        memcpy(a_wszValue, wstrValue.c_str(), (wstrValue.size() + 1) * sizeof(char16_t));
    return wstrValue.size();
}
catch (const std::bad_alloc&)
{
    PosixFail(PLAT_ERROR_NOMEMORY);
    return 0;
}

bool PlatEnvSet(const char16_t* a_wszName, const char16_t* a_wszValue)
try
{
    std::string strName;
    std::string strValue;
    if (!NameOf(a_wszName, strName) || (a_wszValue && !PosixToUtf8(a_wszValue, strValue)))
        return false;
    const PosixGuard posixguard(POSIX_LOCK_ENVIRONMENT);
    const int iResult =
        strValue.empty() ? unsetenv(strName.c_str()) : setenv(strName.c_str(), strValue.c_str(), 1 /*overwrite*/);
    if (strName == "TZ")
        tzset();   // the clock goes by what it read last
    return iResult == 0 || PosixFailErrno();
}
catch (const std::bad_alloc&)
{
    return PosixFail(PLAT_ERROR_NOMEMORY);
}

using Variable = std::pair<std::u16string, std::u16string>;

// Text of any bytes: what is no character becomes U+FFFD.
static std::u16string WidenAny(const std::string& a_strText)
{
    static constexpr size_t g_sizetCharacter = 4;   // bytes that a character may have
    std::u16string wstrText;
    if (Widen(a_strText, wstrText))
        return wstrText;
    wstrText.clear();
    for (size_t sizet = 0; sizet < a_strText.size();)
    {
        std::u16string wstrCharacter;
        size_t sizetBytes = 1;
        while (sizetBytes <= g_sizetCharacter && !Widen(a_strText.substr(sizet, sizetBytes), wstrCharacter))
            ++sizetBytes;
        const bool blCharacter = sizetBytes <= g_sizetCharacter;
        wstrText += blCharacter ? wstrCharacter : u"\uFFFD";
        sizet += blCharacter ? sizetBytes : 1;
    }
    return wstrText;
}

// The environment as it is now.
static std::vector<Variable> Snapshot()
{
    std::vector<Variable> vecvariable;
    const PosixGuard posixguard(POSIX_LOCK_ENVIRONMENT);
    for (char** ppch = environ; ppch && *ppch; ++ppch)
    {
        const char* pchEqual = strchr(*ppch, '=');
        if (pchEqual && pchEqual != *ppch)
            vecvariable.emplace_back(WidenAny(std::string(*ppch, static_cast<size_t>(pchEqual - *ppch))),
                                     WidenAny(pchEqual + 1));
    }
    return vecvariable;
}

bool PlatEnvList(PlatEnvProc a_platenvproc, void* a_pvContext)
try
{
    for (const Variable& variable : Snapshot())
    {
        if (!a_platenvproc(a_pvContext, variable.first.c_str(), variable.second.c_str()))
            break;
    }
    return true;
}
catch (const std::bad_alloc&)
{
    return PosixFail(PLAT_ERROR_NOMEMORY);
}
