// os_cossocket.h: one connection, over TCP or another transport that the host name chooses.
//
// Server: construct, SocketCreate (no source), SocketListen, SocketGetInfo for the port; then for each client a second
// object, SocketCreate (source = listener), SocketAccept. Client: construct, SocketConnect. Then SocketRead and
// SocketWrite, SocketDisconnect, destroy.
//
// One thread reads and one thread writes an object at a time; another may call SocketCancel or SocketDisconnect to end
// a blocked read.
// Time-outs are in milliseconds, OS_INFINITE is no limit.
//
// The host "@SHAREDMEMORY" connects to channels in files that another process has made. The port is the path of one
// channel, whose name begins with "w" (this side reads it) or "r" (this side writes it), or of two: the one that this
// side writes, ";", the one that it reads. A read then gives at most one record, a write returns when everything is
// stored, and both fail when the other process ends. Stop events, threads and the time-out of a write have no meaning
// there, and SocketCancel reaches the waits of the other side.
#pragma once

#include "os_types.h"

class COsSocketImpl;
class COsSync;
class COsThread;
struct PlatSocketOwner;   // plat_socket.h

enum EOSSOCKETTYPE : uint32_t
{
    OS_SOCKETTYPE_UNDEFINED = 0,
    OS_SOCKETTYPE_TCP = 1,
    OS_SOCKETTYPE_SHAREDMEMORYW = 3,
    OS_SOCKETTYPE_SHAREDMEMORYR = 4,
    OS_SOCKETTYPE_SHAREDMEMORYRW = 5,
    OS_SOCKETTYPE_MESSAGEQUEUEW = 6,
    OS_SOCKETTYPE_MESSAGEQUEUER = 7,
    OS_SOCKETTYPE_MESSAGEQUEUERW = 8,
};

inline constexpr size_t OS_SOCKETHOSTSIZE = 256;
inline constexpr size_t OS_SOCKETPORTSIZE = 16;

class COsSocket
{
public:
    COsSocket();
    ~COsSocket();   // disconnects without grace
    COsSocket(const COsSocket&) = delete;
    COsSocket& operator=(const COsSocket&) = delete;

    // Without a source: a listening socket bound to host (null: 127.0.0.1; a dotted address) and port ("0": the
    // system chooses). With one: an accept-side socket on the source's listener. EOSSTS_NOMEMORY for want of
    // descriptors or memory, EOSSTS_FAIL on any other failure; the object then holds no handles.
    EOSSTS SocketCreate(const char* a_szHost, const char* a_szPort, const char* a_szName, COsSocket* a_possocketSource);
    EOSSTS SocketListen();

    // A listener: how much the system keeps of each of its connections that was not read, in bytes and roughly. Before
    // SocketListen. EOSSTS_NOTOPEN without a listener, EOSSTS_FAIL.
    EOSSTS SocketSetReceiveBuffer(uint32_t a_u32Bytes);

    // Waits for a connection without limit. EOSSTS_EXITED when a_possyncStop (may be null) is signalled,
    // EOSSTS_NOTOPEN without a listener, EOSSTS_CANCELLED; EOSSTS_NOMEMORY when the connection cannot be taken now for
    // want of descriptors or memory: it waits on, and may be tried again; EOSSTS_FAIL.
    EOSSTS SocketAccept(COsSync* a_possyncStop);

    struct ConnectArgs
    {
        const char* szHost = nullptr;   // null: 127.0.0.1
        const char* szPort = nullptr;
        const char* szName = "";       // a label for the log
        uint64_t u64ProcessId = 0;     // its end aborts the attempt, and every later wait of the connection
        bool blWatchAttempt = false;   // its end aborts the attempt alone
        bool blSecure = false;         // told in the log only
        int32_t i32Timeout = -1;       // -1: 20000
        bool blNoDelay = false;
        uint32_t u32SendBuffer = 0;   // bytes that may be on their way, roughly; 0: as the system sees fit
    };
    // Success says that the attempt is over; a refused connection shows at the first read or write.
    // EOSSTS_TIMEOUT, EOSSTS_CANCELLED, EOSSTS_EXITED, EOSSTS_FAIL.
    EOSSTS SocketConnect(const ConnectArgs& a_connectargs);

    struct ReadArgs
    {
        void* pvBuffer = nullptr;
        size_t sizetBuffer = 0;
        uint32_t u32Timeout = OS_INFINITE;   // 0: does not wait
        uint32_t u32Tag = 0;                 // a number for the log
        COsThread* posthread = nullptr;      // the end of its child process ends the wait
        COsSync* possyncStop = nullptr;      // signalled: ends the wait
        bool blQuiet = false;                // a failed wait is a note, not an error
        bool blRaw = false;
        // How many leading bytes of the buffer may be other than zero (null: all). Afterwards: how many are. A
        // caller that reads into one buffer again and again need not have all of it cleared each time.
        size_t* psizetDirty = nullptr;
    };
    // Takes what one receive gives; the rest of the buffer is zero afterwards. EOSSTS_DISCONNECTED when the peer
    // has gone or the read was cancelled, EOSSTS_EXITED, EOSSTS_TIMEOUT, EOSSTS_NOTOPEN, EOSSTS_FAIL.
    EOSSTS SocketRead(const ReadArgs& a_readargs, size_t* a_psizetRead);

    struct WriteArgs
    {
        const void* pvBuffer = nullptr;
        size_t sizetBuffer = 0;
        uint32_t u32Timeout = OS_INFINITE;   // of the wait for room; its end is no error
        uint32_t u32Tag = 0;
        bool blLogging = true;
        bool blRaw = false;
    };
    // Hands over what one send takes, possibly less than asked. EOSSTS_DISCONNECTED when the peer has gone.
    EOSSTS SocketWrite(const WriteArgs& a_writeargs, size_t* a_psizetWritten);

    // Hands over what the system takes at once of a TCP connection, and logs nothing. Nothing is taken before the
    // system says that there is room, which is then a good part of what it keeps: so a short text goes whole.
    // EOSSTS_SUCCESS with the number of bytes; EOSSTS_DISCONNECTED when the peer has gone or closed: nothing is sent to
    // it then; EOSSTS_NOTOPEN.
    EOSSTS SocketTrySend(const void* a_pvBuffer, size_t a_sizetBuffer, size_t* a_psizetSent);

    // Closes the sending direction of a TCP connection: the peer reads what was sent, then the end. Reading goes on.
    // EOSSTS_DISCONNECTED when the connection has gone, EOSSTS_NOTOPEN. Logs nothing, nor do the next two.
    EOSSTS SocketEndSending();

    // Who has the other end of a TCP connection of this machine, and how much of what arrived there was not read.
    // EOSSTS_FAIL where the system cannot tell, EOSSTS_NOTOPEN.
    EOSSTS SocketPeerOwner(PlatSocketOwner* a_pplatsocketowner);

    // Bytes that were sent and have not arrived at the peer's system. EOSSTS_NOTOPEN, EOSSTS_FAIL.
    EOSSTS SocketUnsent(size_t* a_psizetBytes);

    // The one wait of the TCP transport. Each of the words may be null: what is not asked is not reported. *read: on
    // entry 1 accept, 2 connect, else read; all: on return the events seen (PLAT_SOCKET_...). A wait for writing
    // that times out is a success with 2 in *write. EOSSTS_NOMEMORY when the wait itself cannot begin for want of
    // descriptors or memory.
    struct SelectArgs
    {
        uint32_t* pu32Read = nullptr;
        uint32_t* pu32Write = nullptr;
        uint32_t* pu32Except = nullptr;
        uint32_t u32Timeout = OS_INFINITE;
        COsThread* posthread = nullptr;
        COsSync* possyncStop = nullptr;
        bool blLogging = true;
    };
    EOSSTS SocketSelect(const SelectArgs& a_selectargs);

    // Ends the wait that is under way, or the next one. Any thread.
    void SocketCancel();

    // Shuts the connection down and releases everything, as often as called. Any thread: what is under way ends, and
    // has ended when the call returns. Graceful: what was written is sent off; when a read was ended by it, the peer is
    // given time to close.
    void SocketDisconnect(bool a_blGraceful);

    // In a fork of the process that connected: closes this process's descriptors of a TCP connection, which stays the
    // parent's as it is. Waits for nobody and logs nothing.
    void SocketLeaveToParent();

    // The address and port in use. Buffers of OS_SOCKETHOSTSIZE and OS_SOCKETPORTSIZE bytes, each may be null.
    EOSSTS SocketGetInfo(char* a_szHost, char* a_szPort);

    // A host name's dotted address, into OS_SOCKETHOSTSIZE bytes.
    EOSSTS SocketResolveHost(const char* a_szHost, char* a_szAddress);

    bool IsUsable() const { return m_possocketimpl != nullptr; }

private:
    COsSocketImpl* m_possocketimpl;   // null only when its allocation failed
};

// Starts the system's sockets once; the library's stop ends them.
bool OsSocketInitializeStatic();
void OsSocketCleanupStatic();

// True on the maker's own machines, of which there are none.
bool OsIsInHouseMachine();
