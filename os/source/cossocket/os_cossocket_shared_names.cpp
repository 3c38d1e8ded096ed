// os_cossocket_shared_names.cpp: parsing host and port: the type of the socket, the files of its channels.
#include "os_cfg.h"
#include "os_cosfile_system.h"
#include "os_cospath.h"
#include "os_cossocket_shared_impl.h"
#include "os_cosstring.h"
#include "os_costime.h"
#include "os_log.h"

#include "plat_process.h"

#include <cstring>

static constexpr char g_szSource[] = "os/source/os_cossocket";

static constexpr size_t g_sizetPort = 1024;   // of a port with two channels

static constexpr SocketTransport g_asockettransport[] = {
    {"@SHAREDMEMORY", OS_SOCKETTYPE_SHAREDMEMORYW, OS_SOCKETTYPE_SHAREDMEMORYR, OS_SOCKETTYPE_SHAREDMEMORYRW, "socket",
     ".socket"},
    {"@MESSAGEQUEUE", OS_SOCKETTYPE_MESSAGEQUEUEW, OS_SOCKETTYPE_MESSAGEQUEUER, OS_SOCKETTYPE_MESSAGEQUEUERW,
     "messagequeue", ".messagequeue"},
};

// ------------------------------------------------------------------------------------------------------------ types

const SocketTransport* OsSocketTransportOfHost(const char* a_szHost)
{
    for (const SocketTransport& sockettransport : g_asockettransport)
    {
        if (std::strcmp(a_szHost, sockettransport.szHost) == 0)
            return &sockettransport;
    }
    return nullptr;
}

const SocketTransport* OsSocketTransportOfType(EOSSOCKETTYPE a_eossockettype)
{
    for (const SocketTransport& sockettransport : g_asockettransport)
    {
        if (a_eossockettype >= sockettransport.eossockettypeIn && a_eossockettype <= sockettransport.eossockettypeBoth)
            return &sockettransport;
    }
    return nullptr;
}

// A channel is named by the side that created it: the channel that side reads ("r") is written by this side.
EOSSOCKETTYPE OsSocketTransportType(const SocketTransport& a_sockettransport, const char* a_szPort)
{
    if (std::strchr(a_szPort, ';'))
        return a_sockettransport.eossockettypeBoth;
    const char* szName = a_szPort;
    for (const char* szRest = a_szPort; *szRest; ++szRest)
    {
        if (*szRest == '/' || *szRest == '\\')
            szName = szRest + 1;
    }
    if (*szName == 'r')
        return a_sockettransport.eossockettypeOut;
    return *szName == 'w' ? a_sockettransport.eossockettypeIn : OS_SOCKETTYPE_UNDEFINED;
}

// ------------------------------------------------------------------------------------------------------------ names

static bool IsLeftToUs(const char* a_szText)
{
    return *a_szText == '\0' || std::strcmp(a_szText, "0") == 0;
}

static void CreateFolder(const char* a_szFolder)
{
    if (!OsFileExists(a_szFolder))
        OsFileCreateDirectory(a_szFolder);
}

// Generates the name of a channel that this side creates.
static void GenerateName(const SocketTransport& a_sockettransport, char a_chDirection, const char* a_szLabel,
                         char (&a_szName)[OS_PATHSIZE])
{
    OsPathCopy(a_szName, sizeof a_szName, OsCfgGetString(OS_CFGTAG_LOGDIRECTORY));
    OsPathAppend(a_szName, sizeof a_szName, a_sockettransport.szFolder);
    CreateFolder(a_szName);

    OsTimeRecord time;
    OsTimeLocal(&time, nullptr);
    char szFile[OS_PATHSIZE];
    SStrPrintf(szFile, sizeof szFile, "%c%.4d%.2d%.2d%.2d%.2d%.2d%.3d%s_pid%llu%s", a_chDirection, time.u16Year,
               time.u16Month, time.u16Day, time.u16Hour, time.u16Minute, time.u16Second, time.u16Milliseconds,
               a_szLabel, static_cast<unsigned long long>(PlatProcessId()), a_sockettransport.szExtension);
    OsPathAppend(a_szName, sizeof a_szName, szFile);
}

// The path of one channel's file in a folder (empty: none).
static void TakeName(const char* a_szFolder, const char* a_szFile, char (&a_szName)[OS_PATHSIZE])
{
    OsPathCopy(a_szName, sizeof a_szName, *a_szFolder ? a_szFolder : a_szFile);
    if (*a_szFolder)
        OsPathAppend(a_szName, sizeof a_szName, a_szFile);
}

// The other side's port is what it reads, ";", what it writes; this side writes the first and reads the second.
static void SplitPort(const SocketTransport& a_sockettransport, const char* a_szFolder, const char* a_szPort,
                      SocketChannelNames* a_psocketchannelnames)
{
    char szPort[g_sizetPort];
    SStrCpy(szPort, sizeof szPort, a_szPort);
    char* const szSeparator = std::strchr(szPort, ';');
    if (!szSeparator)
    {
        OSLOG(OS_LOG_CHECK, "badly constructed name...<%s>", a_szPort);
        return;
    }
    *szSeparator = '\0';
    TakeName(a_szFolder, szSeparator + 1, a_psocketchannelnames->aszName[a_sockettransport.eossockettypeIn]);
    TakeName(a_szFolder, szPort, a_psocketchannelnames->aszName[a_sockettransport.eossockettypeOut]);
}

void OsSocketNameChannels(EOSSOCKETTYPE a_eossockettype, const char* a_szHost, const char* a_szPort,
                          const char* a_szLabel, SocketChannelNames* a_psocketchannelnames)
{
    *a_psocketchannelnames = {};
    const SocketTransport* const psockettransport = OsSocketTransportOfType(a_eossockettype);
    if (!psockettransport)
        return;
    const bool blBoth = a_eossockettype == psockettransport->eossockettypeBoth;
    if (IsLeftToUs(a_szHost) || IsLeftToUs(a_szPort))
    {
        const EOSSOCKETTYPE eossockettypeIn = psockettransport->eossockettypeIn;
        const EOSSOCKETTYPE eossockettypeOut = psockettransport->eossockettypeOut;
        if (blBoth || a_eossockettype == eossockettypeIn)
            GenerateName(*psockettransport, 'r', a_szLabel, a_psocketchannelnames->aszName[eossockettypeIn]);
        if (blBoth || a_eossockettype == eossockettypeOut)
            GenerateName(*psockettransport, 'w', a_szLabel, a_psocketchannelnames->aszName[eossockettypeOut]);
        return;
    }

    const char* const szFolder = StrICmp(a_szHost, psockettransport->szHost) == 0 ? "" : a_szHost;
    if (*szFolder)
        CreateFolder(szFolder);
    if (blBoth)
    {
        SplitPort(*psockettransport, szFolder, a_szPort, a_psocketchannelnames);
    }
    else
    {
        TakeName(szFolder, a_szPort, a_psocketchannelnames->aszName[a_eossockettype]);
    }
}

void OsSocketTellChannels(EOSSOCKETTYPE a_eossockettype, const SocketChannelNames& a_socketchannelnames, char* a_szPort)
{
    const SocketTransport& sockettransport = *OsSocketTransportOfType(a_eossockettype);
    const char* const szIn = a_socketchannelnames.aszName[sockettransport.eossockettypeIn];
    const char* const szOut = a_socketchannelnames.aszName[sockettransport.eossockettypeOut];
    const bool blBoth = a_eossockettype == sockettransport.eossockettypeBoth;
    SStrPrintf(a_szPort, OS_SOCKETPORTSIZE, "%s%s%s", szIn, blBoth ? ";" : "", szOut);
}
