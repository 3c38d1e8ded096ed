// os_cossocket_debug.cpp: the side log and the data trace.
//
// Both write directly to files in the log folder, not through the logger, so that they can report on the logger's own
// connection. Writing a file may log, and the logger may send: neither diagnostic is written from within one.
#include "os_cfg.h"
#include "os_cosfile.h"
#include "os_cospath.h"
#include "os_cossocket_impl.h"
#include "os_cosspinlock.h"
#include "os_cosstring.h"

#include "plat_process.h"
#include "plat_thread.h"

#include <algorithm>
#include <cstdarg>
#include <cstring>
#include <new>

static constexpr char g_szSource[] = "os/source/os_cossocket";

static constexpr size_t OS_SIDELOGLINE = 1024;
static constexpr size_t OS_TRACETEXT = 65536;
static constexpr size_t OS_TRACEHEAD = 16;   // space for the head before the bytes
static constexpr size_t OS_TRACEBYTE = 3;    // " 0a"

static thread_local bool g_blWriting = false;

namespace
{

class WritingGuard
{
public:
    WritingGuard() { g_blWriting = true; }
    ~WritingGuard() { g_blWriting = false; }
    WritingGuard(const WritingGuard&) = delete;
    WritingGuard& operator=(const WritingGuard&) = delete;
};

}   // namespace

// False when the configuration has no log folder, or one whose path is too long.
static bool LogPath(char* a_szPath, const char* a_szName)
{
    OsPathCopy(a_szPath, OS_PATHSIZE, OsCfgGetString(OS_CFGTAG_LOGDIRECTORY));
    if (a_szPath[0] == '\0')
        return false;
    OsPathAppend(a_szPath, OS_PATHSIZE, a_szName);
    return a_szPath[0] != '\0';
}

static void AppendTo(const char* a_szPath, const char* a_szText)
{
    OsLogWriteFile(a_szPath, a_szText, true, false, true);
}

// The side log.

// The path of the file, determined once per process; null until a configuration names its folder. Called with the side
// log's lock held.
static const char* SideLogPath()
{
    static char s_szPath[OS_PATHSIZE];
    return s_szPath[0] != '\0' || LogPath(s_szPath, "socketsidelog.txt") ? s_szPath : nullptr;
}

void COsSocketImpl::SideLog(uint32_t a_u32Line, const char* a_szFormat, ...) const
{
    const uint32_t u32Error = PlatGetLastError();
    if (u32Error == PLAT_ERROR_NONE || g_blWriting)
        return;
    static uint64_t s_u64Lock = 0;
    const COsSpinGuard spinguard(&s_u64Lock);
    const WritingGuard writingguard;

    char szLine[OS_SIDELOGLINE];
    const char* const szName = StrFileName(g_szSource);
    SStrPrintf(szLine, sizeof szLine, "%-20.20s %06d %08d ", szName, static_cast<int>(a_u32Line),
               static_cast<int>(u32Error));
    const size_t sizetHead = std::strlen(szLine);
    va_list valist;
    va_start(valist, a_szFormat);
    SStrVprintf(szLine + sizetHead, sizeof szLine - sizetHead, a_szFormat, valist);
    va_end(valist);
    SStrCat(szLine, sizeof szLine, "\r\n");

    if (const char* const szPath = SideLogPath())
        AppendTo(szPath, szLine);
    PlatSetLastError(u32Error);
}

// The data trace.

static bool TraceIsOn()
{
    return OsCfgExists() && !g_blWriting && OsCfgGetLong(OS_CFGTAG_DEBUGSOCKETS) != 0 && OsLogWorkingWord() == 0;
}

// Appends the head, the bytes in hexadecimal (truncated to the buffer) and a line end to the thread's trace file.
static void Trace(const char* a_szHead, const void* a_pvBytes, size_t a_sizetBytes)
{
    const WritingGuard writingguard;
    char szName[OS_PATHSIZE];
    char szPath[OS_PATHSIZE];
    SStrPrintf(szName, sizeof szName, "socket_%llu_%llu.log", static_cast<unsigned long long>(PlatProcessId()),
               static_cast<unsigned long long>(PlatThreadId()));
    const std::unique_ptr<char[]> text(new (std::nothrow) char[OS_TRACETEXT]);
    if (!text || !LogPath(szPath, szName))
        return;

    SStrCpy(text.get(), OS_TRACETEXT, a_szHead);
    char* pchEnd = text.get() + std::strlen(text.get());
    const auto* const pu8Bytes = static_cast<const uint8_t*>(a_pvBytes);
    const size_t sizetBytes = std::min(a_sizetBytes, (OS_TRACETEXT - 1 - OS_TRACEHEAD) / OS_TRACEBYTE);
    for (size_t sizetByte = 0; sizetByte < sizetBytes; ++sizetByte)
    {
        static constexpr char s_szDigits[] = "0123456789abcdef";
        *pchEnd++ = ' ';
        *pchEnd++ = s_szDigits[pu8Bytes[sizetByte] >> 4];
        *pchEnd++ = s_szDigits[pu8Bytes[sizetByte] & 0x0F];
    }
    *pchEnd++ = '\n';
    *pchEnd = '\0';
    AppendTo(szPath, text.get());
}

void OsSocketTraceReceive(const void* a_pvBytes, size_t a_sizetBytes)
{
    if (TraceIsOn())
        Trace("    rd:", a_pvBytes, a_sizetBytes);
}

void OsSocketTraceSend(const void* a_pvBytes, size_t a_sizetBytes)
{
    if (!TraceIsOn())
        return;
    static std::atomic<uint32_t> s_u32Sends{0};
    char szHead[OS_TRACEHEAD];
    SStrPrintf(szHead, sizeof szHead, "\n%03d wr:", static_cast<int>(++s_u32Sends));
    Trace(szHead, a_pvBytes, a_sizetBytes);
}
