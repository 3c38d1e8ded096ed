// os_cossocket_shared.cpp: attaching to shared-memory channels, accepting, cancelling, releasing.
//
// Waits also watch the process at the other end, so that they end with it.
#include "os_cossocket_shared_impl.h"
#include "os_cosstring.h"
#include "os_log.h"
#include "os_new.h"

#include "plat_process.h"
#include "plat_wait.h"

#include <cstring>

static constexpr char g_szSource[] = "os/source/os_cossocket";

bool SocketBusyRetry::TryAgain()
{
    if (m_iYields > 0)
    {
        --m_iYields;
        PlatSleep(0);
        return true;
    }
    if (m_iPauses == 0)
        return false;
    --m_iPauses;
    PlatSleep(OS_BUSYPAUSE);
    return true;
}

// ------------------------------------------------------------------------------------------------------- one channel

namespace
{

// An event of a channel: the suffix of its name, and the message when it cannot be opened.
struct SocketChannelEvent
{
    const char* szName;
    const char* szOpen;
};

}   // namespace

static constexpr SocketChannelEvent g_asocketchannelevent[OS_CHANNELEVENT_LAST] = {
    {"EventOkToRead", "EventCreate"}, {"EventOkToWrite", "EventCreate"}, {"EventCancel", "EventOpen"}};

// A cancel event ends the waits of the events in its group.
static bool IsCancelEvent(const char* a_szName)
{
    return StrEndsWith(a_szName, g_asocketchannelevent[OS_CHANNELEVENT_CANCEL].szName, false);
}

bool SocketChannel::Attach(EOSSOCKETTYPE a_eossockettype, const char* a_szName)
{
    if (a_eossockettype != OS_SOCKETTYPE_SHAREDMEMORYW && a_eossockettype != OS_SOCKETTYPE_SHAREDMEMORYR)
    {
        OSLOG(OS_LOG_CHECK, "This only create either readonly or writeonly shared memory socket type");
        return false;
    }
    m_blReads = a_eossockettype == OS_SOCKETTYPE_SHAREDMEMORYW;
    if (!ConnectRing(a_szName) || !TellUser() || !OpenEvents(a_szName) || !Announce())
        return false;
    m_blAttached = true;
    return true;
}

bool SocketChannel::ConnectRing(const char* a_szName)
{
    m_posringbuffer = OSMEMNEW(COsRingBuffer);
    if (!m_posringbuffer)
        return false;
    const EOSSTS eossts = SocketBusyRetry::Run([&] { return m_posringbuffer->Connect(a_szName, !m_blReads); });
    if (eossts != EOSSTS_SUCCESS)
        OSLOG(OS_LOG_ERROR, "RingBuffer.Create failed...<%d>", static_cast<int>(eossts));
    return eossts == EOSSTS_SUCCESS;
}

EOSSTS SocketChannel::Users(SocketChannelUsers* a_psocketchannelusers)
{
    return SocketBusyRetry::Run([&] { return m_posringbuffer->UserAreaRead(a_psocketchannelusers); });
}

bool SocketChannel::TellUser()
{
    SocketChannelUsers socketchannelusers;
    if (const EOSSTS eossts = Users(&socketchannelusers); eossts != EOSSTS_SUCCESS)
    {
        OSLOG(OS_LOG_ERROR, "RingBuffer.UserAreaRead failed...<%d>", static_cast<int>(eossts));
        return false;
    }
    socketchannelusers.u64Connector = PlatProcessId();
    const EOSSTS eossts = SocketBusyRetry::Run([&] { return m_posringbuffer->UserAreaWrite(&socketchannelusers); });
    if (eossts != EOSSTS_SUCCESS)
        OSLOG(OS_LOG_ERROR, "RingBuffer.UserAreaWrite failed...<%d>", static_cast<int>(eossts));
    return eossts == EOSSTS_SUCCESS;
}

// Prefixes the event's name with the name of the channel's file, without folder and extension.
static void NameEvent(const char* a_szChannel, const char* a_szEvent, char (&a_szName)[OS_PATHSIZE])
{
    const char* const szFile = StrFileName(a_szChannel);
    const char* const szExtension = std::strrchr(szFile, '.');
    const size_t sizetFile = szExtension ? static_cast<size_t>(szExtension - szFile) : std::strlen(szFile);
    SStrPrintf(a_szName, sizeof a_szName, "%.*s%s", static_cast<int>(sizetFile), szFile, a_szEvent);
}

bool SocketChannel::OpenEvents(const char* a_szName)
{
    for (size_t sizetEvent = 0; sizetEvent < OS_CHANNELEVENT_LAST; ++sizetEvent)
    {
        const SocketChannelEvent& socketchannelevent = g_asocketchannelevent[sizetEvent];
        COsSync*& possync = m_aposync[sizetEvent];
        possync = OSMEMNEW(COsSync);
        if (!possync)
        {
            OSLOG(OS_LOG_ERROR, "OsMemNew failed to create ossync...");
            return false;
        }
        char szEvent[OS_PATHSIZE];
        NameEvent(a_szName, socketchannelevent.szName, szEvent);
        if (const EOSSTS eossts = possync->EventOpen(szEvent); eossts != EOSSTS_SUCCESS)
        {
            OSLOG(OS_LOG_ERROR, "OsSync.%s failed...<%d>", socketchannelevent.szOpen, static_cast<int>(eossts));
            return false;
        }
    }
    return true;
}

// Announces this process: the other side may be waiting for its reader or writer.
bool SocketChannel::Announce()
{
    const EOSSTS eossts = m_aposync[m_blReads ? OS_CHANNELEVENT_OKTOWRITE : OS_CHANNELEVENT_OKTOREAD]->EventSet();
    if (eossts != EOSSTS_SUCCESS)
        OSLOG(OS_LOG_ERROR, "OsSync.EventSet failed...<%d>", static_cast<int>(eossts));
    return eossts == EOSSTS_SUCCESS;
}

COsSync& SocketChannel::Awaited()
{
    return *m_aposync[m_blReads ? OS_CHANNELEVENT_OKTOREAD : OS_CHANNELEVENT_OKTOWRITE];
}

EOSSTS SocketChannel::Await(uint32_t a_u32Timeout)
{
    char szName[OS_PATHSIZE] = "";
    const EOSSTS eossts = Awaited().EventWait(a_u32Timeout, szName);
    return eossts == EOSSTS_SUCCESS && IsCancelEvent(szName) ? EOSSTS_CANCELLED : eossts;
}

void SocketChannel::Wake()
{
    if (IsAttached())
        Awaited().EventSet();
}

void SocketChannel::Release()
{
    m_blAttached = false;
    for (size_t sizetEvent = OS_CHANNELEVENT_LAST; sizetEvent-- > 0;)
        OSMEMDELETE(m_aposync[sizetEvent]);
    OSMEMDELETE(m_posringbuffer);
}

// -------------------------------------------------------------------------------------------------------- the socket

bool SocketShared::Connect(EOSSOCKETTYPE a_eossockettype, uint64_t a_u64ProcessId)
{
    const char* const szIn = m_socketchannelnames.aszName[OS_SOCKETTYPE_SHAREDMEMORYW];
    const char* const szOut = m_socketchannelnames.aszName[OS_SOCKETTYPE_SHAREDMEMORYR];
    return (!OsSocketReadsShared(a_eossockettype) || m_socketchannelIn.Attach(OS_SOCKETTYPE_SHAREDMEMORYW, szIn)) &&
           (!OsSocketWritesShared(a_eossockettype) || m_socketchannelOut.Attach(OS_SOCKETTYPE_SHAREDMEMORYR, szOut)) &&
           WatchPeers(a_eossockettype == OS_SOCKETTYPE_SHAREDMEMORYRW, a_u64ProcessId);
}

// If both channels are used, the process named by the caller must exist. Otherwise the creator of the channel is
// watched, if it exists.
bool SocketShared::WatchPeers(bool a_blBoth, uint64_t a_u64ProcessId)
{
    for (SocketChannel* const psocketchannel : {&m_socketchannelIn, &m_socketchannelOut})
    {
        if (!psocketchannel->IsAttached())
            continue;
        uint64_t u64ProcessId = a_u64ProcessId;
        SocketChannelUsers socketchannelusers;
        if (u64ProcessId == 0 && psocketchannel->Users(&socketchannelusers) == EOSSTS_SUCCESS)
            u64ProcessId = socketchannelusers.u64Creator;
        if (!psocketchannel->Watch(u64ProcessId) && a_blBoth && a_u64ProcessId != 0)
            return false;
    }
    return true;
}

EOSSTS SocketShared::AwaitConnector(EOSSOCKETTYPE a_eossockettype)
{
    const EOSSOCKETTYPE eossockettype =
        OsSocketReadsShared(a_eossockettype) ? OS_SOCKETTYPE_SHAREDMEMORYW : OS_SOCKETTYPE_SHAREDMEMORYR;
    OSLOG(OS_LOG_NOTE, "Accept(sockettype=%d,timeout=%ld,thread=%p) lretry=%ld timeout=%ld",
          static_cast<int>(eossockettype), -1L, static_cast<void*>(nullptr),
          static_cast<long>(SocketBusyRetry::OS_BUSYRETRIES), -1L);
    SocketChannel& socketchannel = AcceptChannel(a_eossockettype);
    if (!socketchannel.IsAttached())
    {
        OSLOG(OS_LOG_ERROR, "sock>>> accept: must call SocketCreate() first...");
        return EOSSTS_NOTOPEN;
    }
    const EOSSTS eossts = m_blClosing ? EOSSTS_CANCELLED : socketchannel.Await(OS_INFINITE);
    if (eossts == EOSSTS_CANCELLED || m_blClosing)
    {
        OSLOG(OS_LOG_NOTE, "Accept: EventWait cancelled...");
        return EOSSTS_CANCELLED;
    }
    if (eossts != EOSSTS_SUCCESS)
        OSLOG(OS_LOG_NOTE, "Accept: EventWait failed...%d", static_cast<int>(eossts));
    return eossts;
}

bool SocketShared::WatchConnector(EOSSOCKETTYPE a_eossockettype)
{
    SocketChannel& socketchannel = AcceptChannel(a_eossockettype);
    SocketChannelUsers socketchannelusers;
    if (socketchannel.Users(&socketchannelusers) != EOSSTS_SUCCESS)
    {
        OSLOG(OS_LOG_ERROR, "Accept: RingBuffer.UserAreaRead failed...");
        return false;
    }
    if (!socketchannel.Watch(socketchannelusers.u64Connector))
    {
        OSLOG(OS_LOG_ERROR, "Accept: OsSync.EventIncludeProcessId failed...");
        return false;
    }
    return true;
}

void SocketShared::Cancel()
{
    for (SocketChannel* const psocketchannel : {&m_socketchannelIn, &m_socketchannelOut})
    {
        if (psocketchannel->IsAttached())
            psocketchannel->Signal(OS_CHANNELEVENT_CANCEL);
    }
}

void SocketShared::Wake()
{
    m_blClosing = true;
    m_socketchannelIn.Wake();
    m_socketchannelOut.Wake();
}

void SocketShared::Release()
{
    m_socketchannelOut.Release();
    m_socketchannelIn.Release();
    m_blClosing = false;
}
