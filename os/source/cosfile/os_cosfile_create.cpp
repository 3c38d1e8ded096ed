// os_cosfile_create.cpp: creates a folder with its parents, and traces folder creation.
#include "os_cosfile_system.h"

#include "os_cosenv.h"
#include "os_coslocale.h"
#include "os_cospath.h"
#include "os_cosspinlock.h"
#include "os_cosstring.h"
#include "os_log.h"

#include "plat_file.h"
#include "plat_process.h"

#include <cstring>

static constexpr char g_szSource[] = "os/source/os_cosfile";

namespace
{
thread_local bool t_blNoCreate = false;

// The trace file, from MVR_TRACE_COSFILE_CREATE: read once per process, empty for no trace.
uint64_t g_u64TraceLock = 0;
bool g_blTraceRead = false;
char g_szTraceFile[OS_PATHSIZE];

const char* TraceFile()
{
    const COsSpinGuard cosspinguard(&g_u64TraceLock);
    if (!g_blTraceRead)
        OsEnvGet("MVR_TRACE_COSFILE_CREATE", "", sizeof g_szTraceFile, g_szTraceFile);
    g_blTraceRead = true;
    return g_szTraceFile;
}

// The program's file name without extension. It also serves as the module's name: the library is linked into the
// program.
void ProgramName(char* a_szName, size_t a_sizetName)
{
    char16_t wszPath[PLAT_PATHMAX];
    char szPath[PLAT_PATHMAX];
    a_szName[0] = '\0';
    if (!PlatProgramPath(wszPath, PLAT_PATHMAX) || CopyStringToUtf8(szPath, sizeof szPath, wszPath, SIZE_MAX) == 0)
        return;
    const char* szName;
    OsPathSplit(szPath, nullptr, &szName);
    if (char* const szExtension = const_cast<char*>(strrchr(szName, '.')))
        *szExtension = '\0';
    SStrCpy(a_szName, a_sizetName, szName);
}

// Writes one trace line if tracing is on. a_u32Error is the system's error of a failed call.
void Trace(const char* a_szDirectory, EOSSTS a_eossts, uint32_t a_u32Error)
{
    const char* const szTraceFile = TraceFile();
    if (!szTraceFile[0])
        return;

    char szName[OS_PATHSIZE];
    ProgramName(szName, sizeof szName);
    const char* const szOutcome = a_eossts == EOSSTS_EXISTS    ? "exists:"
                                  : a_eossts == EOSSTS_SUCCESS ? "pass:  "
                                                               : "error: ";
    char szLine[2 * OS_PATHSIZE];
    SStrPrintf(szLine, sizeof szLine, "%s %15.15s %15.15s %s", szOutcome, szName, szName, a_szDirectory);
    if (a_eossts != EOSSTS_EXISTS && a_eossts != EOSSTS_SUCCESS)
        SStrCatf(szLine, sizeof szLine, " %d %x", 0, a_u32Error);
    SStrCat(szLine, sizeof szLine, "\r\n");
    OsLogWriteFile(szTraceFile, szLine, true, false, true);
}

// Skips a_iComponents components, or less at the end of the text.
char* SkipComponents(char* a_szPath, int a_iComponents)
{
    for (int i = 0; i < a_iComponents && *a_szPath; ++i)
    {
        char* const szNext = strchr(a_szPath, '\\');
        a_szPath = szNext ? szNext + 1 : a_szPath + strlen(a_szPath);
    }
    return a_szPath;
}

// Start of the components that can be created: behind "\", "X:", "X:\" or "\\server\share\".
char* BehindRoot(char* a_szPath)
{
    if (StrStartsWith(a_szPath, "\\\\"))
        return SkipComponents(a_szPath + 2, 2);
    char* const szBehind = a_szPath[0] && a_szPath[1] == ':' ? a_szPath + 2 : a_szPath;
    return *szBehind == '\\' ? szBehind + 1 : szBehind;
}

// Also true if another thread or process creates the folder at the same time.
bool CreateOne(const char* a_szFolder)
{
    char16_t wszFolder[OS_WIDEPATHSIZE];
    if (!OsPathToSystem(wszFolder, OS_WIDEPATHSIZE, a_szFolder))
    {
        PlatSetLastError(PLAT_ERROR_INVALIDNAME);
        return false;
    }
    if (PlatFolderCreate(wszFolder))
        return true;
    const uint32_t u32Error = PlatGetLastError();
    if (u32Error == PLAT_ERROR_ALREADYEXISTS || OsFileExists(a_szFolder))
        return true;
    PlatSetLastError(u32Error);
    return false;
}

// Creates every missing component of a normalised path, from the root down. Usually only the last is missing. False
// with the system's last error.
bool CreateComponents(char* a_szPath)
{
    OsPathRemoveTrailing(a_szPath);
    if (CreateOne(a_szPath))
        return true;
    char* szNext = BehindRoot(a_szPath);
    if (PlatGetLastError() != PLAT_ERROR_PATHNOTFOUND || !*szNext)
        return false;
    while (*szNext)
    {
        szNext += strcspn(szNext, "\\");
        const char chBehind = *szNext;
        *szNext = '\0';
        if (!CreateOne(a_szPath))
            return false;
        *szNext = chBehind;
        if (chBehind)
            ++szNext;
    }
    return true;
}

EOSSTS CreateStatus(uint32_t a_u32Error)
{
    switch (a_u32Error)
    {
    case PLAT_ERROR_PATHNOTFOUND:
        return EOSSTS_NOTFOUND;
    case PLAT_ERROR_ACCESSDENIED:
        return EOSSTS_ACCESSDENIED;
    default:
        return EOSSTS_FAIL;
    }
}
}   // namespace

void OsFileSetNoCreate(bool a_blNoCreate)
{
    t_blNoCreate = a_blNoCreate;
}

EOSSTS OsFileCreateDirectory(const char* a_szDirectory)
{
    if (!a_szDirectory)
    {
        OSLOG(OS_LOG_ERROR, "a_szDirectory is NULL...");
        return EOSSTS_FAIL;
    }
    const bool blExists = OsFileExists(a_szDirectory);
    if (t_blNoCreate)
        return blExists ? EOSSTS_EXISTS : EOSSTS_SUCCESS;
    if (blExists)
    {
        Trace(a_szDirectory, EOSSTS_EXISTS, 0);
        return EOSSTS_EXISTS;
    }

    OSLOG(OS_LOG_NOTE, "Creating directory...<%s>", a_szDirectory);
    char szPath[OS_PATHSIZE];
    OsPathCopy(szPath, sizeof szPath, a_szDirectory);
    EOSSTS eossts = szPath[0] ? EOSSTS_SUCCESS : EOSSTS_FAIL;
    uint32_t u32Error = PLAT_ERROR_INVALIDNAME;
    if (szPath[0] && !CreateComponents(szPath))
    {
        u32Error = PlatGetLastError();
        eossts = CreateStatus(u32Error);
    }
    Trace(a_szDirectory, eossts, u32Error);
    if (eossts != EOSSTS_SUCCESS)
        PlatSetLastError(PLAT_ERROR_NONE);
    return eossts;
}
