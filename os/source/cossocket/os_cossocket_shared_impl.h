// os_cossocket_shared_impl.h: the shared-memory transport of a socket, for the sources of the class.
//
// os_cossocket_shared.cpp         attaching, accepting, cancelling, letting go
// os_cossocket_shared_io.cpp      reading and writing
// os_cossocket_shared_names.cpp   what a host and a port stand for: the type, the files of the channels
//
// A channel is a ring buffer in a file, made by another process of the family, and three named events that pace it.
// This side reads one channel and writes the other, or has only one of them.
#pragma once

#include "os_cosringbuffer.h"
#include "os_cossocket.h"
#include "os_cossync.h"

#include <atomic>

// A host that stands for a transport, the types behind it, and where its channels' files are when nobody says.
struct SocketTransport
{
    const char* szHost;
    EOSSOCKETTYPE eossockettypeIn;    // one channel, which this side reads
    EOSSOCKETTYPE eossockettypeOut;   // one channel, which this side writes
    EOSSOCKETTYPE eossockettypeBoth;
    const char* szFolder;
    const char* szExtension;
};

// Null for a host that stands for none, and for a type of TCP.
const SocketTransport* OsSocketTransportOfHost(const char* a_szHost);
const SocketTransport* OsSocketTransportOfType(EOSSOCKETTYPE a_eossockettype);

// OS_SOCKETTYPE_UNDEFINED for a port that says neither two channels nor by its name which way its channel goes.
EOSSOCKETTYPE OsSocketTransportType(const SocketTransport& a_sockettransport, const char* a_szPort);

// What a type of this transport does.
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

// The files of the channels, by socket type; empty where there is none.
struct SocketChannelNames
{
    static constexpr size_t OS_SOCKETTYPES = 9;

    char aszName[OS_SOCKETTYPES][OS_PATHSIZE] = {};
};

// Fills in the files that a socket of a type uses. A host that is neither empty nor the transport's is a folder, which
// is made when it is missing. A host or port that is empty or "0" leaves the names to us; a_szLabel is part of them.
void OsSocketNameChannels(EOSSOCKETTYPE a_eossockettype, const char* a_szHost, const char* a_szPort,
                          const char* a_szLabel, SocketChannelNames* a_psocketchannelnames);

// Tells the channels of a type as a port, into OS_SOCKETPORTSIZE bytes: the one that is read first, then ";".
void OsSocketTellChannels(EOSSOCKETTYPE a_eossockettype, const SocketChannelNames& a_socketchannelnames,
                          char* a_szPort);

// Tries of an operation that finds its ring buffer locked. The first of a row only give the processor away: the other
// side is about to let go. Then come the pauses, which are counted.
class SocketBusyRetry
{
public:
    static constexpr int OS_BUSYPAUSE = 10;   // milliseconds
    static constexpr int OS_BUSYRETRIES = 5000 / OS_BUSYPAUSE;

    // The status of an operation that is tried until it is no longer EOSSTS_BUSY.
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
    bool TryAgain();   // false: there have been enough

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

// The processes at the two ends of a channel, as its user area holds them.
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

    // Attaches to the channel of a file, to read it (OS_SOCKETTYPE_SHAREDMEMORYW) or to write it
    // (OS_SOCKETTYPE_SHAREDMEMORYR), and tells the other side. After a failure, which is logged, it is to be released.
    bool Attach(EOSSOCKETTYPE a_eossockettype, const char* a_szName);
    void Release();
    bool IsAttached() const { return m_blAttached; }

    COsRingBuffer& Ring() { return *m_posringbuffer; }
    EOSSTS Users(SocketChannelUsers* a_psocketchannelusers);
    void Signal(EOSCHANNELEVENT a_eoschannelevent) { m_aposync[a_eoschannelevent]->EventSet(); }

    // Waits for what the other side signals. EOSSTS_CANCELLED, EOSSTS_EXITED (the watched process), EOSSTS_TIMEOUT.
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

// The transport's part of a socket. One thread reads and one writes; cancelling and waking is for any thread.
class SocketShared
{
public:
    // Attaches the channels of the type. False, logged: what was attached is to be released.
    bool Connect(EOSSOCKETTYPE a_eossockettype, uint64_t a_u64ProcessId);

    // Waits for a peer without limit; then its end can be watched. False, logged: the socket is to be disconnected.
    EOSSTS AwaitConnector(EOSSOCKETTYPE a_eossockettype);
    bool WatchConnector(EOSSOCKETTYPE a_eossockettype);

    // Count in the caller's word, which is 0 at first.
    EOSSTS Read(const COsSocket::ReadArgs& a_readargs, size_t* a_psizetRead);
    EOSSTS Write(const COsSocket::WriteArgs& a_writeargs, size_t* a_psizetWritten);
    void Cancel();

    bool IsAttached() const { return m_socketchannelIn.IsAttached() || m_socketchannelOut.IsAttached(); }
    void Wake();   // ends what waits, and what would wait until the release
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
