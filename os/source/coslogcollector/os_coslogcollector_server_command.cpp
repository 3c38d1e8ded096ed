// os_coslogcollector_server_command.cpp: the command files by which other tools control all collectors: the common one,
// which root writes, and one per user, which that user's tools write. Each has a monitor that calls back on its own
// thread, concurrently with the readers.
#include "os_coslogcollector_server.h"

#include "os_cfg.h"
#include "os_cosarguments.h"
#include "os_cosfile_system.h"
#include "os_cosmem.h"
#include "os_cospath.h"
#include "os_new.h"

#include "plat_user.h"

static constexpr char g_szSource[] = "os/source/os_coslogcollector";

static constexpr char g_szCommandFile[] = "flush";

// ------------------------------------------------------------------------------------------------------ monitors

static bool IsOwnFolder(const char* a_szFolder)
{
    COsFile osfile;
    PlatFileOwned platfileowned{};
    return osfile.Open(a_szFolder, OS_FILEOPEN_DIRECTORY, OS_FILEACCESS_NONE, OS_FILESHARE_READWRITE) ==
               EOSSTS_SUCCESS &&
           osfile.GetOwner(&platfileowned) && platfileowned.platowner == PLAT_OWNER_SAME;
}

// Only in a folder that our user owns: elsewhere any user could create it first. Commands are accepted only from a file
// that other users cannot write.
static void CreateCommandFile(const char* a_szPath)
{
    if (OsFileExists(a_szPath))
        return;
    char szFolder[OS_PATHSIZE];
    OsPathCopy(szFolder, sizeof szFolder, a_szPath);
    OsPathFolder(szFolder);
    OsFileCreateDirectory(szFolder);
    if (IsOwnFolder(szFolder))
        COsFile().Open(a_szPath, OS_FILEOPEN_ALWAYSOWN, OS_FILEACCESS_WRITE, OS_FILESHARE_READWRITE, false,
                       OS_FILEGUARD_NOLINK);
}

void COsLogCollectorServer::StartMonitor(COsFile& a_osfile, const char* a_szPath)
{
    CreateCommandFile(a_szPath);
    a_osfile.MonitorStart(a_szPath, "LogCollectorFlush",
                          OS_FILEMONITOR_START | OS_FILEMONITOR_MODIFIED | OS_FILEMONITOR_MAYBEMISSING,
                          &MonitorFlushEntry, this);
}

// Without a configuration there is no command file.
void COsLogCollectorServer::StartMonitors()
{
    char szPath[OS_PATHSIZE];
    if (OsCfgGetPath(OS_PATH_WRITEABLE_FILE_LOGCOLLECTORFLUSH, szPath, sizeof szPath) == EOSSTS_SUCCESS)
        StartMonitor(*m_posfileFlush, szPath);
    char szPathOwn[OS_PATHSIZE];
    if (OsCfgGetPath(OS_PATH_WRITEABLE_FOLDER_LOGCOLLECTOR, szPathOwn, sizeof szPathOwn) != EOSSTS_SUCCESS)
        return;
    OsPathAppend(szPathOwn, sizeof szPathOwn, g_szCommandFile);
    StartMonitor(*m_posfileFlushOwn, szPathOwn);
}

void COsLogCollectorServer::StopMonitors()
{
    for (COsFile** const pposfile : {&m_posfileFlush, &m_posfileFlushOwn})
    {
        if (*pposfile)
            (*pposfile)->MonitorStop();
        OSMEMDELETE(*pposfile);
    }
}

// ------------------------------------------------------------------------------------------------------ commands

// Accepts a file of our user or root. False when there was no descriptor or memory to read it.
static bool ReadCommandFile(const char* a_szPath, OsLcCommand* a_poslccommand)
{
    char* szText = nullptr;
    OsFileReadArgs osfilereadargs;
    osfilereadargs.szFilename = a_szPath;
    osfilereadargs.pszAllocated = &szText;
    osfilereadargs.blQuiet = true;
    osfilereadargs.blTrusted = true;
    PlatSetLastError(PLAT_ERROR_NONE);
    if (OsFileReadFile(osfilereadargs) == EOSSTS_SUCCESS && szText)
        *a_poslccommand = OsLcReadCommand(szText);
    const uint32_t u32Error = PlatGetLastError();
    if (szText)
        OSMEMFREE(szText, OS_MEMFLAG_BLOCK);
    return szText || (u32Error != PLAT_ERROR_TOOMANYOPEN && u32Error != PLAT_ERROR_NOMEMORY);
}

// A command written before the collector started is ignored.
uint32_t COsLogCollectorServer::MonitorFlushEntry(COsFile* a_posfile)
{
    const OsFileMonitorState& osfilemonitorstate = a_posfile->MonitorState();
    auto* const poslogcollectorserver = static_cast<COsLogCollectorServer*>(osfilemonitorstate.pvContext);
    if (osfilemonitorstate.blInitialCall || osfilemonitorstate.eossts != EOSSTS_SUCCESS || !poslogcollectorserver)
        return 0;
    OsLcCommand oslccommand{};
    if (!ReadCommandFile(osfilemonitorstate.szPath, &oslccommand))
        return OS_FILEMONITOR_CALLAGAIN;
    poslogcollectorserver->MonitorFlushCallback(oslccommand);
    return 0;
}

void COsLogCollectorServer::MonitorFlushCallback(const OsLcCommand& a_oslccommand)
{
    if (a_oslccommand.eoslccommand == OS_LCCOMMAND_NONE)
        return;
    m_oslogcollectorfiles.Flush();
    if (a_oslccommand.eoslccommand == OS_LCCOMMAND_EXITALL || IsNamed(a_oslccommand))
        g_bLogCollectorStop.store(1);
}

// Matches by port and application. Without them the command names the library's collector of this process; the
// collector program has none, so such an exit ends every collector.
bool COsLogCollectorServer::IsNamed(const OsLcCommand& a_oslccommand) const
{
    if (a_oslccommand.eoslccommand != OS_LCCOMMAND_EXIT)
        return false;
    const auto u64ProcessId = static_cast<uint64_t>(a_oslccommand.i64ProcessIdApplication);
    const OsCollectorIdentity oscollectoridentity = OsArgumentsCollector();
    return (a_oslccommand.i32Port == m_i32BoundPort && u64ProcessId == m_u64ProcessIdApplication) ||
           (a_oslccommand.i32Port == oscollectoridentity.i32Port &&
            u64ProcessId == oscollectoridentity.u64ProcessIdApplication);
}
