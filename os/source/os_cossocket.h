// os_cossocket.h: one connection, over TCP or another transport that the host name selects.
//
// Server: construct, SocketCreate (no source), SocketListen, SocketGetInfo for the port; then for each client a second
// object, SocketCreate (source = listener), SocketAccept. Client: construct, SocketConnect. Then SocketRead and
// SocketWrite, SocketDisconnect, destroy.
//
// One thread may read while another writes; a third may call SocketCancel or SocketDisconnect to end a blocked read.
// Time-outs are in milliseconds, OS_INFINITE is no limit.
//
// The host "@SHAREDMEMORY" connects to channels in files that another process has created. The port is the path of one
// channel, whose name begins with "w" (this side reads it) or "r" (this side writes it), or two paths: the channel that
// this side writes, ";", the one that it reads. Then a read returns at most one record, a write returns when everything
// is stored, and both fail when the other process ends. Stop events, threads and write time-outs are ignored there, and
// SocketCancel ends the waits of the peer.
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

    // Without a source: binds a listening socket to host (null: 127.0.0.1; a dotted address) and port ("0": chosen by
    // the system). With one: makes an accept-side socket for the source's listener. EOSSTS_NOMEMORY when there are no
    // descriptors or no memory left, EOSSTS_FAIL on any other failure; the object then holds no handles.
    EOSSTS SocketCreate(const char* a_szHost, const char* a_szPort, const char* a_szName, COsSocket* a_possocketSource);
    EOSSTS SocketListen();

    // Listener: sets the approximate receive buffer of its connections, in bytes. Call before SocketListen.
    // EOSSTS_NOTOPEN without a listener, EOSSTS_FAIL.
    EOSSTS SocketSetReceiveBuffer(uint32_t a_u32Bytes);

    // Waits for a connection without limit. EOSSTS_EXITED when a_possyncStop (may be null) is signalled, EOSSTS_NOTOPEN
    // without a listener, EOSSTS_CANCELLED; EOSSTS_NOMEMORY when there are no descriptors or no memory left: the
    // connection stays pending, retry later; EOSSTS_FAIL.
    EOSSTS SocketAccept(COsSync* a_possyncStop);

    struct ConnectArgs
    {
        const char* szHost = nullptr;   // null: 127.0.0.1
        const char* szPort = nullptr;
        const char* szName = "";       // for the log
        uint64_t u64ProcessId = 0;     // its end aborts the attempt and all later waits
        bool blWatchAttempt = false;   // its end aborts only the attempt
        bool blSecure = false;         // for the log only
        int32_t i32Timeout = -1;       // -1: 20000
        bool blNoDelay = false;
        uint32_t u32SendBuffer = 0;   // approximate send buffer in bytes; 0: the system's default
    };
    // Success means that the attempt is over; a refused connection is reported by the first read or write.
    // EOSSTS_TIMEOUT, EOSSTS_CANCELLED, EOSSTS_EXITED, EOSSTS_FAIL.
    EOSSTS SocketConnect(const ConnectArgs& a_connectargs);

    struct ReadArgs
    {
        void* pvBuffer = nullptr;
        size_t sizetBuffer = 0;
        uint32_t u32Timeout = OS_INFINITE;   // 0: does not wait
        uint32_t u32Tag = 0;                 // for the log
        COsThread* posthread = nullptr;      // the end of its child process ends the wait
        COsSync* possyncStop = nullptr;      // ends the wait when signalled
        bool blQuiet = false;                // a failed wait is logged as a note, not an error
        bool blRaw = false;
        // On entry: how many leading bytes of the buffer may be non-zero (null: all). On return: how many are. Saves
        // clearing the whole buffer when it is reused.
        size_t* psizetDirty = nullptr;
    };
    // Returns the bytes of one receive; the rest of the buffer is zeroed. EOSSTS_DISCONNECTED when the peer has closed
    // or the read was cancelled, EOSSTS_EXITED, EOSSTS_TIMEOUT, EOSSTS_NOTOPEN, EOSSTS_FAIL.
    EOSSTS SocketRead(const ReadArgs& a_readargs, size_t* a_psizetRead);

    struct WriteArgs
    {
        const void* pvBuffer = nullptr;
        size_t sizetBuffer = 0;
        uint32_t u32Timeout = OS_INFINITE;   // of the wait for room; a time-out is no error
        uint32_t u32Tag = 0;
        bool blLogging = true;
        bool blRaw = false;
    };
    // Sends what one system call accepts, possibly less than requested. EOSSTS_DISCONNECTED when the peer has closed.
    EOSSTS SocketWrite(const WriteArgs& a_writeargs, size_t* a_psizetWritten);

    // Non-blocking send on a TCP connection; logs nothing. Sends nothing until the system reports the socket writeable,
    // which means that a good part of its buffer is free: so a short text is sent whole. EOSSTS_SUCCESS with the number
    // of bytes; EOSSTS_DISCONNECTED when the peer has closed: nothing is sent then; EOSSTS_NOTOPEN.
    EOSSTS SocketTrySend(const void* a_pvBuffer, size_t a_sizetBuffer, size_t* a_psizetSent);

    // Shuts down the sending direction of a TCP connection: the peer reads what was sent, then end of file. Reading
    // still works. EOSSTS_DISCONNECTED when the connection is closed, EOSSTS_NOTOPEN. This and the next two log
    // nothing.
    EOSSTS SocketEndSending();

    // The process at the other end of a TCP connection on this machine, and how many received bytes it has not read.
    // EOSSTS_FAIL when the system cannot tell, EOSSTS_NOTOPEN.
    EOSSTS SocketPeerOwner(PlatSocketOwner* a_pplatsocketowner);

    // Bytes sent but not yet received by the peer's system. EOSSTS_NOTOPEN, EOSSTS_FAIL.
    EOSSTS SocketUnsent(size_t* a_psizetBytes);

    // The wait of the TCP transport. Each pointer may be null: that event is not reported. *read: on entry 1 accept, 2
    // connect, otherwise read; all: on return the events (PLAT_SOCKET_...). A wait for writing that times out is a
    // success with 2 in *write. EOSSTS_NOMEMORY when there are no descriptors or no memory left for the wait.
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

    // Ends the current wait, or the next one. Thread-safe.
    void SocketCancel();

    // Shuts the connection down and releases everything; may be called repeatedly. Thread-safe: calls in progress end
    // before it returns. Graceful: written data is sent first; if a read was ended, the peer gets time to close.
    void SocketDisconnect(bool a_blGraceful);

    // In a fork of the process that connected: closes this process's descriptors of a TCP connection without affecting
    // the parent's. Does not wait and does not log.
    void SocketLeaveToParent();

    // The local address and port. Buffers of OS_SOCKETHOSTSIZE and OS_SOCKETPORTSIZE bytes, each may be null.
    EOSSTS SocketGetInfo(char* a_szHost, char* a_szPort);

    // A host name's dotted address, into OS_SOCKETHOSTSIZE bytes.
    EOSSTS SocketResolveHost(const char* a_szHost, char* a_szAddress);

    bool IsUsable() const { return m_possocketimpl != nullptr; }

private:
    COsSocketImpl* m_possocketimpl;   // null only when its allocation failed
};

// Initialises the system's sockets once; the library's stop ends them.
bool OsSocketInitializeStatic();
void OsSocketCleanupStatic();

// True on the maker's own machines; no machine is one today.
bool OsIsInHouseMachine();
