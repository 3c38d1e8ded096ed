// os_coslog_file.cpp: opening, closing and flushing a log file, and its folder.
#include "os_coslog_file.h"

#include "os_cosfile.h"
#include "os_cosfile_system.h"
#include "os_cospath.h"

#include <new>

OsLogFile* OsLogFile::Open(const char* a_szLogFile)
{
    char16_t wszPath[OS_WIDEPATHSIZE];
    const PlatHandle plathandleNew =
        OsPathToSystem(wszPath, OS_WIDEPATHSIZE, a_szLogFile) ? PlatAppendOpen(wszPath) : PLAT_INVALID;
    if (plathandleNew == PLAT_INVALID)
        return nullptr;
    PlatFileInfo platfileinfo;
    const bool blEmpty = !PlatFileGetInfo(wszPath, &platfileinfo) || platfileinfo.u64Size == 0;
    auto* const poslogfile = new (std::nothrow) OsLogFile{plathandleNew, 1, blEmpty};
    if (!poslogfile)
        PlatClose(plathandleNew);
    return poslogfile;
}

void OsLogFile::Release(OsLogFile* a_poslogfile)
{
    if (!a_poslogfile || a_poslogfile->u32Users.fetch_sub(1, std::memory_order_acq_rel) != 1)
        return;
    PlatClose(a_poslogfile->plathandle);
    delete a_poslogfile;
}

void OsLogFolderOfFile(const char* a_szLogFile, char* a_szFolder)
{
    OsPathCopy(a_szFolder, OS_PATHSIZE, a_szLogFile);
    OsPathFolder(a_szFolder);
}

bool OsLogMakeFolderOf(const char* a_szLogFile)
{
    char szFolder[OS_PATHSIZE];
    OsLogFolderOfFile(a_szLogFile, szFolder);
    if (!*szFolder)
        return false;
    OsFileCreateDirectory(szFolder);
    return true;
}

void OsLogEndTornLine(const char* a_szLogFile)
{
    COsFile osfile;
    char chLast = '\n';
    if (osfile.Open(a_szLogFile, OS_FILEOPEN_EXISTING, OS_FILEACCESS_READWRITE, OS_FILESHARE_READWRITE) ==
            EOSSTS_SUCCESS &&
        osfile.Seek(OS_FILESEEK_END, -1) == EOSSTS_SUCCESS && osfile.Read(&chLast, 1, nullptr) == EOSSTS_SUCCESS &&
        chLast != '\n')
        chLast == '\r' ? osfile.Append("\n", 1) : osfile.Append("\r\n", 2);
}

void OsLogFlushFile(const char* a_szLogFile)
{
    char16_t wszPath[OS_WIDEPATHSIZE];
    if (!OsPathToSystem(wszPath, OS_WIDEPATHSIZE, a_szLogFile))
        return;
    const PlatHandle plathandle =
        PlatFileOpen(wszPath, PLAT_ACCESS_READ | PLAT_ACCESS_WRITE,
                     PLAT_SHARE_READ | PLAT_SHARE_WRITE | PLAT_SHARE_DELETE, PLAT_DISPOSITION_OPENEXISTING, 0);
    if (plathandle == PLAT_INVALID)
        return;
    PlatFileFlush(plathandle);
    PlatClose(plathandle);
}
