// os_coslogcollector_accept.cpp: the listener and the accept thread, which starts one reader for each connection until
// it is stopped or an accept fails.
#include "os_coslogcollector_impl.h"

#include "os_cfg.h"
#include "os_cosfile_system.h"
#include "os_cosstring.h"
#include "os_new.h"
#include "os_scope.h"

#include "plat_process.h"

#include <cstring>

static constexpr char g_szSource[] = "os/source/os_coslogcollector";

static constexpr int32_t g_i32AnnouncementTimeout = 1000;

uint32_t COsLogCollectorImpl::LogAcceptEntry(COsThread* a_posthread)
{
    static_cast<COsLogCollectorImpl*>(a_posthread->Argument())->LogAccept();
    a_posthread->Exit();
    return 0;
}

void COsLogCollectorImpl::LogAccept()
{
    const ScopeGuard closeListener([this] { m_possocketListen->SocketDisconnect(false); });
    if (m_collectormode == OS_COLLECTORMODE_PRIVATE)
    {
        if (m_blListening)
            ServeConnections();
        return;
    }

    char szPath[OS_PATHSIZE];
    AnnouncementPath(szPath);
    OsFileDelete(szPath, OS_FILETYPE_ANY, false, false);
    COsFile osfile;
    if (Announce(osfile, szPath) && ListenAndReport())
        ServeConnections();
    osfile.Close();
    OsFileDelete(szPath, OS_FILETYPE_ANY, false, false);
}

// ------------------------------------------------------------------------------------- telling where we are

// The lock on the first byte says that the announcement is true; it lasts as long as the file is open. It is taken
// before the text is there: whoever reads the text finds the lock. A client that tests it just now holds it for a
// moment.
bool COsLogCollectorImpl::Announce(COsFile& a_osfile, const char* a_szPath)
{
    char szText[OS_LC_ANNOUNCEMENTSIZE];
    OsFileCreateDirectory(OsCfgGetString(OS_CFGTAG_ROOTCOMMONDIRECTORYLEGACY));
    return OsLcBuildAnnouncement(szText, sizeof szText, m_szHost, m_szPort) == EOSSTS_SUCCESS &&
           a_osfile.Open(a_szPath, OS_FILEOPEN_ALWAYS, OS_FILEACCESS_READWRITE, OS_FILESHARE_READWRITE) ==
               EOSSTS_SUCCESS &&
           a_osfile.LockByte(0, g_i32AnnouncementTimeout, a_szPath, false) == EOSSTS_SUCCESS &&
           a_osfile.Write(szText, std::strlen(szText)) == EOSSTS_SUCCESS && a_osfile.Flush() == EOSSTS_SUCCESS;
}

static void WriteStandardOutput(const char* a_szText)
{
    PlatStandardWrite(PLAT_STANDARD_OUTPUT, a_szText, std::strlen(a_szText));
}

// The port is told only when the listener listens: an application connects as soon as it knows it.
bool COsLogCollectorImpl::ListenAndReport()
{
    if (m_possocketListen->SocketCreate(m_szHost, m_szPort, "logaccept", nullptr) != EOSSTS_SUCCESS)
        return false;
    const bool blPrivate = m_collectormode == OS_COLLECTORMODE_PRIVATE;
    if (blPrivate)
        m_possocketListen->SocketGetInfo(m_szHost, m_szPort);
    if (blPrivate && std::strcmp(m_szPort, OS_LC_SHAREDPORT) == 0)
    {
        WriteStandardOutput(OsLcStartRefusal());
        return false;
    }
    m_i32BoundPort = StrToInt32(m_szPort);
    m_possocketListen->SocketListen();
    if (blPrivate)
    {
        char szReply[128];
        OsLcBuildStartReply(szReply, sizeof szReply, m_szPort, PlatProcessId());
        WriteStandardOutput(szReply);
    }
    return true;
}

// ------------------------------------------------------------------------------------------------- accepting

void COsLogCollectorImpl::ServeConnections()
{
    LogCollectorRecord logcollectorrecord{};
    while (CreateRecord(logcollectorrecord) && AcceptOne(logcollectorrecord) && StartReader(logcollectorrecord))
        logcollectorrecord = {};
    FreeRecord(logcollectorrecord);
}

bool COsLogCollectorImpl::CreateRecord(LogCollectorRecord& a_logcollectorrecord)
{
    a_logcollectorrecord.poslogcollectorimpl = this;
    a_logcollectorrecord.posthread = OSMEMNEW(COsThread);
    a_logcollectorrecord.possocket = OSMEMNEW(COsSocket);
    a_logcollectorrecord.possync = OSMEMNEW(COsSync);
    a_logcollectorrecord.posfile = OSMEMNEW(COsFile);
    if (!a_logcollectorrecord.possocket || !a_logcollectorrecord.possocket->IsUsable())
    {
        OSLOG(OS_LOG_ERROR, "m_possocketimpl is null...");
        return false;
    }
    return a_logcollectorrecord.posthread && a_logcollectorrecord.possync && a_logcollectorrecord.posfile &&
           a_logcollectorrecord.possync->EventCreate(nullptr, nullptr) == EOSSTS_SUCCESS;
}

bool COsLogCollectorImpl::AcceptOne(LogCollectorRecord& a_logcollectorrecord)
{
    return a_logcollectorrecord.possocket->SocketCreate(m_szHost, m_szPort, "logcollector", m_possocketListen) ==
               EOSSTS_SUCCESS &&
           a_logcollectorrecord.possocket->SocketAccept(m_possyncStop) == EOSSTS_SUCCESS;
}

// Puts the record into the list and starts its reader on the list's copy, which stays where it is as long as the
// reader lives. A reader that cannot be started costs its connection, no other: the record is taken out again and
// its objects are freed here. False when the list has no room: nothing was taken over then.
bool COsLogCollectorImpl::StartReader(LogCollectorRecord& a_logcollectorrecord)
{
    m_posthreadStarting.store(a_logcollectorrecord.posthread);
    const ScopeGuard started([this] { m_posthreadStarting.store(nullptr); });
    void* const pvItem = m_poslnk->AddAndLock(&a_logcollectorrecord, nullptr, true, false);
    m_poslnk->Unlock();
    if (!pvItem)
        return false;
    if (a_logcollectorrecord.posthread->Start("Log", &LogDataEntry, pvItem) == EOSSTS_SUCCESS)
        return true;
    m_poslnk->Remove(&a_logcollectorrecord, false, true);
    FreeRecord(a_logcollectorrecord);
    return true;
}

void COsLogCollectorImpl::FreeRecord(LogCollectorRecord& a_logcollectorrecord)
{
    OSMEMDELETE(a_logcollectorrecord.possocket);
    OSMEMDELETE(a_logcollectorrecord.possync);
    OSMEMDELETE(a_logcollectorrecord.posthread);
    OSMEMDELETE(a_logcollectorrecord.posfile);
}
