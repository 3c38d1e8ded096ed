// os_cossocket_shared_impl.h: the shared-memory transport of a socket, for the sources of the class.
//
// os_cossocket_shared.cpp         attaching, accepting, cancelling, releasing
// os_cossocket_shared_io.cpp      reading and writing
// os_cossocket_shared_names.cpp   parsing host and port: the type, the files of the channels
//
// A channel is a ring buffer in a file, created by another process of the family, with three named events for flow
// control. This side reads one channel and writes the other, or has only one of them.
#pragma once

#include "os_cosringbuffer.h"
#include "os_cossocket.h"
#include "os_cossync.h"

#include <atomic>

// A host name that selects a transport, the types of the transport, and the default folder of its channels' files.
struct SocketTransport
{
    const char* szHost;
    EOSSOCKETTYPE eossockettypeIn;    // one channel, which this side reads
    EOSSOCKETTYPE eossockettypeOut;   // one channel, which this side writes
    EOSSOCKETTYPE eossockettypeBoth;
    const char* szFolder;
    const char* szExtension;
};

// Null for a host that selects none, and for a TCP type.
const SocketTransport* OsSocketTransportOfHost(const char* a_szHost);
const SocketTransport* OsSocketTransportOfType(EOSSOCKETTYPE a_eossockettype);

// OS_SOCKETTYPE_UNDEFINED for a port with neither two channels nor a channel whose name gives its direction.
EOSSOCKETTYPE OsSocketTransportType(const SocketTransport& a_sockettransport, const char* a_szPort);

// Classify a type of this transport.
inline bool OsSocketIsShared(EOSSOCKETTYPE a_eossockettype)
{
    return a_eossockettype >= OS_SOCKETTYPE_SHAREDMEMORYW && a_eossockettype <= OS_SOCKETTYPE_SHAREDMEMORYRW;
}
inline bool OsSocketReadsShared(EOSSOCKETTYPE a_eossockettype)
{
    return a_eossockettype == OS_SOCKETTYPE_SHAREDMEMORYW || a_eossockettype == OS_SOCKETTYPE_SHAREDMEMORYRW;
}
inline bool OsSocketWritesShared(EOSSOCKETTYPE a_eossockettype)
{
    return a_eossockettype == OS_SOCKETTYPE_SHAREDMEMORYR || a_eossockettype == OS_SOCKETTYPE_SHAREDMEMORYRW;
}

// The files of the channels by socket type; empty for none.
struct SocketChannelNames
{
    static constexpr size_t OS_SOCKETTYPES = 9;

    char aszName[OS_SOCKETTYPES][OS_PATHSIZE] = {};
};

// Fills in the files that a socket of the type uses. A host that is neither empty nor the transport's is a folder,
// created if missing. An empty host or port, or "0", has a name generated that contains a_szLabel.
void OsSocketNameChannels(EOSSOCKETTYPE a_eossockettype, const char* a_szHost, const char* a_szPort,
                          const char* a_szLabel, SocketChannelNames* a_psocketchannelnames);

// Formats the channels of a type as a port of OS_SOCKETPORTSIZE bytes: the one that is read, ";", the one that is
// written.
void OsSocketTellChannels(EOSSOCKETTYPE a_eossockettype, const SocketChannelNames& a_socketchannelnames,
                          char* a_szPort);

// Retries an operation whose ring buffer is locked. The first retries only yield, because the other side is about to
// unlock. Then come pauses, which are counted.
class SocketBusyRetry
{
public:
    static constexpr int OS_BUSYPAUSE = 10;   // milliseconds
    static constexpr int OS_BUSYRETRIES = 5000 / OS_BUSYPAUSE;

    // Repeats an operation until its status is not EOSSTS_BUSY; returns the status.
    template <class Operation>
    static EOSSTS Run(Operation a_operation)
    {
        SocketBusyRetry socketbusyretry;
        EOSSTS eossts = a_operation();
        while (eossts == EOSSTS_BUSY && socketbusyretry.TryAgain())
            eossts = a_operation();
        return eossts;
    }

private:
    bool TryAgain();   // false: no retries left

    static constexpr int OS_BUSYYIELDS = 256;

    int m_iYields = OS_BUSYYIELDS;
    int m_iPauses = OS_BUSYRETRIES;
};

enum EOSCHANNELEVENT : uint32_t
{
    OS_CHANNELEVENT_OKTOREAD = 0,
    OS_CHANNELEVENT_OKTOWRITE = 1,
    OS_CHANNELEVENT_CANCEL = 2,
    OS_CHANNELEVENT_LAST = 3,
};

// The processes at the two ends of a channel, stored in its user area.
struct SocketChannelUsers
{
    uint64_t u64Creator;
    uint64_t u64Connector;
};
static_assert(sizeof(SocketChannelUsers) == COsRingBuffer::OS_RINGUSERDATA);

// One channel of a connecting side.
class SocketChannel
{
public:
    SocketChannel() = default;
    SocketChannel(const SocketChannel&) = delete;
    SocketChannel& operator=(const SocketChannel&) = delete;

    // Attaches to the channel of a file, for reading (OS_SOCKETTYPE_SHAREDMEMORYW) or writing
    // (OS_SOCKETTYPE_SHAREDMEMORYR), and announces this process. After a failure, which is logged, the channel must be
    // released.
    bool Attach(EOSSOCKETTYPE a_eossockettype, const char* a_szName);
    void Release();
    bool IsAttached() const { return m_blAttached; }

    COsRingBuffer& Ring() { return *m_posringbuffer; }
    EOSSTS Users(SocketChannelUsers* a_psocketchannelusers);
    void Signal(EOSCHANNELEVENT a_eoschannelevent) { m_aposync[a_eoschannelevent]->EventSet(); }

    // Waits for a signal of the other side. EOSSTS_CANCELLED, EOSSTS_EXITED (the watched process), EOSSTS_TIMEOUT.
    EOSSTS Await(uint32_t a_u32Timeout);
    bool Watch(uint64_t a_u64ProcessId) { return Awaited().EventIncludeProcessId(a_u64ProcessId) == EOSSTS_SUCCESS; }

    // Ends a wait of this side. Any thread.
    void Wake();

private:
    bool ConnectRing(const char* a_szName);
    bool TellUser();
    bool OpenEvents(const char* a_szName);
    bool Announce();
    COsSync& Awaited();

    COsRingBuffer* m_posringbuffer = nullptr;
    COsSync* m_aposync[OS_CHANNELEVENT_LAST] = {};
    bool m_blReads = false;
    std::atomic<bool> m_blAttached{false};
};

// The socket's part of the transport. One thread reads and one writes; any thread may cancel and wake.
class SocketShared
{
public:
    // Attaches the channels of the type. False, logged: what was attached must be released.
    bool Connect(EOSSOCKETTYPE a_eossockettype, uint64_t a_u64ProcessId);

    // Waits for a peer without limit, then watches its process. False, logged: the socket must be disconnected.
    EOSSTS AwaitConnector(EOSSOCKETTYPE a_eossockettype);
    bool WatchConnector(EOSSOCKETTYPE a_eossockettype);

    // Count in the caller's word, which must be 0 at first.
    EOSSTS Read(const COsSocket::ReadArgs& a_readargs, size_t* a_psizetRead);
    EOSSTS Write(const COsSocket::WriteArgs& a_writeargs, size_t* a_psizetWritten);
    void Cancel();

    bool IsAttached() const { return m_socketchannelIn.IsAttached() || m_socketchannelOut.IsAttached(); }
    void Wake();   // ends current waits, and all later ones until the release
    void Release();

    SocketChannelNames m_socketchannelnames;

private:
    bool WatchPeers(bool a_blBoth, uint64_t a_u64ProcessId);
    EOSSTS AwaitPeer(SocketChannel* a_psocketchannel, uint32_t a_u32Timeout, bool a_blLogging);
    EOSSTS ReadRing(const COsSocket::ReadArgs& a_readargs, size_t* a_psizetRead);
    EOSSTS WriteRing(const COsSocket::WriteArgs& a_writeargs, size_t* a_psizetWritten);

    // The channel that an accepting side waits on.
    SocketChannel& AcceptChannel(EOSSOCKETTYPE a_eossockettype)
    {
        return OsSocketReadsShared(a_eossockettype) ? m_socketchannelIn : m_socketchannelOut;
    }

    SocketChannel m_socketchannelIn;
    SocketChannel m_socketchannelOut;
    std::atomic<bool> m_blClosing{false};
};
