// os_coslogcollector_command.cpp: other tools tell all collectors what to do through one command file. Its monitor
// calls on a thread of its own, beside the readers.
#include "os_coslogcollector_impl.h"

#include "os_cfg.h"
#include "os_cosarguments.h"
#include "os_cosfile_paths.h"
#include "os_cosfile_system.h"
#include "os_cosmem.h"
#include "os_cosspinlock.h"
#include "os_new.h"

#include "plat_wait.h"

#include <algorithm>
#include <cstring>

static constexpr char g_szSource[] = "os/source/os_coslogcollector";

static constexpr size_t g_sizetCommandFile = 65536;   // what is read of it, with a terminator

// --------------------------------------------------------------------------------------------- the open log files

void COsLogOpenFiles::Add(COsFile* a_posfile)
{
    const COsSpinGuard guard(&m_u64Lock);
    m_vecposfile.push_back(a_posfile);
}

void COsLogOpenFiles::Remove(COsFile* a_posfile)
{
    for (;;)
    {
        {
            const COsSpinGuard guard(&m_u64Lock);
            std::erase(m_vecposfile, a_posfile);
            if (m_posfilePinned != a_posfile)
                return;
        }
        PlatSleep(1);
    }
}

bool COsLogOpenFiles::Pin(COsFile* a_posfile)
{
    const COsSpinGuard guard(&m_u64Lock);
    const bool blOpen = std::find(m_vecposfile.begin(), m_vecposfile.end(), a_posfile) != m_vecposfile.end();
    m_posfilePinned = blOpen ? a_posfile : nullptr;
    return blOpen;
}

void COsLogOpenFiles::Flush()
{
    std::vector<COsFile*> vecposfile;
    {
        const COsSpinGuard guard(&m_u64Lock);
        vecposfile = m_vecposfile;
    }
    for (COsFile* const posfile : vecposfile)
    {
        if (Pin(posfile))
            posfile->Flush();
    }
    Pin(nullptr);
}

// ------------------------------------------------------------------------------------------------------- monitor

static void CreateCommandFile(const char* a_szPath)
{
    if (OsFileExists(a_szPath))
        return;
    char szFolder[OS_PATHSIZE];
    OsPathCopy(szFolder, sizeof szFolder, a_szPath);
    size_t sizetFolder = 0;
    const char* szFilename = nullptr;
    OsPathSplit(szFolder, &sizetFolder, &szFilename);
    szFolder[sizetFolder] = 0;
    OsFileCreateDirectory(szFolder);
    COsFile().Open(a_szPath, OS_FILEOPEN_ALWAYS, OS_FILEACCESS_WRITE, OS_FILESHARE_READWRITE);
}

// Without a configuration there is no command file.
void COsLogCollectorImpl::StartMonitor()
{
    char szPath[OS_PATHSIZE];
    if (OsCfgGetPath(OS_PATH_WRITEABLE_FILE_LOGCOLLECTORFLUSH, szPath, sizeof szPath) != EOSSTS_SUCCESS)
        return;
    CreateCommandFile(szPath);
    m_posfileFlush->MonitorStart(szPath, "LogCollectorFlush", OS_FILEMONITOR_START | OS_FILEMONITOR_MODIFIED,
                                 &MonitorFlushEntry, this);
}

void COsLogCollectorImpl::StopMonitor()
{
    if (m_posfileFlush)
        m_posfileFlush->MonitorStop();
    OSMEMDELETE(m_posfileFlush);
}

// ------------------------------------------------------------------------------------------------------ commands

// A command that was there before the collector is none for it.
uint32_t COsLogCollectorImpl::MonitorFlushEntry(COsFile* a_posfile)
{
    const OsFileMonitorState& osfilemonitorstate = a_posfile->MonitorState();
    auto* const poslogcollectorimpl = static_cast<COsLogCollectorImpl*>(osfilemonitorstate.pvContext);
    if (!osfilemonitorstate.blInitialCall && osfilemonitorstate.eossts == EOSSTS_SUCCESS && poslogcollectorimpl)
        poslogcollectorimpl->MonitorFlushCallback(osfilemonitorstate.szPath);
    return 0;
}

static OsLcCommand ReadCommandFile(const char* a_szPath)
{
    auto* const szText = static_cast<char*>(OSMEMALLOC(g_sizetCommandFile, OS_MEMFLAG_BLOCK));
    if (!szText)
        return {};
    OsFileReadArgs osfilereadargs;
    osfilereadargs.szFilename = a_szPath;
    osfilereadargs.szBuffer = szText;
    osfilereadargs.sizetBuffer = g_sizetCommandFile - 1;
    osfilereadargs.blQuiet = true;
    szText[g_sizetCommandFile - 1] = 0;
    OsLcCommand oslccommand{};
    if (OsFileReadFile(osfilereadargs) == EOSSTS_SUCCESS && *szText)
        oslccommand = OsLcReadCommand(szText);
    OSMEMFREE(szText, OS_MEMFLAG_BLOCK);
    return oslccommand;
}

void COsLogCollectorImpl::MonitorFlushCallback(const char* a_szPath)
{
    const OsLcCommand oslccommand = ReadCommandFile(a_szPath);
    if (oslccommand.eoslccommand == OS_LCCOMMAND_NONE)
        return;
    m_oslogopenfiles.Flush();
    if (oslccommand.eoslccommand == OS_LCCOMMAND_EXITALL || IsNamed(oslccommand))
        g_bLogCollectorStop.store(1);
}

// By its port and its application; or as the library's collector of this process, which is none in the collector
// program: an exit that names nobody is for all.
bool COsLogCollectorImpl::IsNamed(const OsLcCommand& a_oslccommand) const
{
    if (a_oslccommand.eoslccommand != OS_LCCOMMAND_EXIT)
        return false;
    const auto u64ProcessId = static_cast<uint64_t>(a_oslccommand.i64ProcessIdApplication);
    const OsCollectorIdentity oscollectoridentity = OsArgumentsCollector();
    return (a_oslccommand.i32Port == m_i32BoundPort && u64ProcessId == m_u64ProcessIdApplication) ||
           (a_oslccommand.i32Port == oscollectoridentity.i32Port &&
            u64ProcessId == oscollectoridentity.u64ProcessIdApplication);
}
