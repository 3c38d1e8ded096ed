// os_cossocket_impl.h: the state of a connection, shared by the sources of the class.
//
// os_cossocket.cpp           the public object, construction, create, listen, accept, names, process-wide start
// os_cossocket_connect.cpp   the choice of the transport, and connecting
// os_cossocket_io.cpp        read, write, disconnect, and closing while operations are in progress
// os_cossocket_wait.cpp      the one wait of the TCP transport, and what cancels it
// os_cossocket_debug.cpp     the side log and the data trace
// os_cossocket_shared*       the shared-memory transport, a class of its own
//
// Each operation has a branch per transport; a socket type without a branch is reported as "Unsupported...%d".
#pragma once

#include "os_cossocket.h"
#include "os_log.h"

#include "plat_socket.h"
#include "plat_types.h"

#include <atomic>
#include <memory>
#include <optional>

class SocketShared;

inline constexpr char OS_LOOPBACK[] = "127.0.0.1";

// What a wait for reading waits for, as input in SelectArgs::pu32Read; any other number waits for bytes.
inline constexpr uint32_t OS_SELECTMODE_ACCEPT = 1;
inline constexpr uint32_t OS_SELECTMODE_CONNECT = 2;

// A listening socket, reference counted by the object that created it and the accept-side objects. The last one closes
// it, so that none waits on a handle that has been reused.
class SocketListener
{
public:
    explicit SocketListener(PlatHandle a_plathandle) : m_plathandle(a_plathandle) {}
    SocketListener(const SocketListener&) = delete;
    SocketListener& operator=(const SocketListener&) = delete;

    PlatHandle Handle() const { return m_plathandle; }
    SocketListener* Share();
    static void Drop(SocketListener*& a_psocketlistener);   // null is allowed; clears the reference

private:
    ~SocketListener();

    const PlatHandle m_plathandle;
    std::atomic<uint32_t> m_u32References{1};
};

// A socket event, created by the first wait that needs it, and its current selection: an unchanged mask is not set
// again.
struct SocketEvent
{
    PlatHandle plathandle = PLAT_INVALID;
    PlatHandle plathandleSocket = PLAT_INVALID;
    uint32_t u32Mask = 0;
};

// Closing while operations are in progress: every operation is counted in u32Operations while it uses handles. A
// disconnecting thread sets pvCloser first, wakes the waits, and closes when the count is 0; an operation that starts
// meanwhile finds no socket. Members that one thread changes while another may read are atomic; the others belong to
// the reading, the writing or the disconnecting thread.
struct SocketState
{
    SocketState();
    ~SocketState();

    std::atomic<uint32_t> u32Operations{0};   // low half: all; high half: reads
    std::atomic<const void*> pvCloser{nullptr};

    std::atomic<EOSSOCKETTYPE> eossockettype{OS_SOCKETTYPE_UNDEFINED};
    std::atomic<PlatHandle> plathandleConnected{PLAT_INVALID};
    std::atomic<PlatHandle> plathandleProcess{PLAT_INVALID};   // a process whose end aborts waits

    uint64_t u64CancelLock = 0;                   // guards the next two
    std::atomic<bool> blCancelRequested{false};   // the cancel event is signalled
    PlatHandle plathandleCancel = PLAT_INVALID;

    SocketEvent socketeventRead;
    SocketEvent socketeventWrite;

    SocketListener* psocketlistener = nullptr;
    bool blOwnsListener = false;
    bool blSideLog = false;
    uint16_t u16Port = 0;
    std::unique_ptr<SocketShared>
        psocketshared;               // created by the first connect to a transport host, before the type is set
    PlatAddress plataddress{};       // bound address of a listener, else the peer
    char szHost[OS_PATHSIZE] = "";   // the address in use, dotted once resolved
};

// Counts an operation, unless a disconnect is in progress.
class SocketOperation
{
public:
    static constexpr uint32_t OS_OPERATION = 1;
    static constexpr uint32_t OS_OPERATION_READ = 0x10001;
    static constexpr uint32_t OS_OPERATION_ALL = 0xFFFF;

    explicit SocketOperation(SocketState& a_socketstate, uint32_t a_u32Operation = OS_OPERATION);
    ~SocketOperation();
    SocketOperation(const SocketOperation&) = delete;
    SocketOperation& operator=(const SocketOperation&) = delete;

    bool Entered() const { return m_u32Operation != 0; }

    // The connected socket; PLAT_INVALID if the operation was refused.
    PlatHandle Connected() const { return Entered() ? m_socketstate.plathandleConnected.load() : PLAT_INVALID; }
    PlatHandle Listening() const;

private:
    SocketState& m_socketstate;
    uint32_t m_u32Operation;
};

// One wait: the request, and what is known so far.
struct SocketWait
{
    const COsSocket::SelectArgs& selectargs;
    PlatHandle plathandleSocket = PLAT_INVALID;
    SocketEvent* psocketevent = nullptr;
    uint32_t u32Mask = 0;
    uint32_t u32Events = 0;   // found by a check before the wait
    bool blLook = true;       // false: the caller has just checked
};

class COsSocketImpl
{
public:
    COsSocketImpl() = default;
    ~COsSocketImpl();
    COsSocketImpl(const COsSocketImpl&) = delete;
    COsSocketImpl& operator=(const COsSocketImpl&) = delete;

    bool Initialize();   // false (logged): no memory

    EOSSTS Create(const char* a_szHost, const char* a_szPort, bool a_blSource, COsSocketImpl* a_possocketimplSource);
    EOSSTS Listen();
    EOSSTS SetReceiveBuffer(uint32_t a_u32Bytes);
    EOSSTS Accept(COsSync* a_possyncStop);
    EOSSTS Connect(const COsSocket::ConnectArgs& a_connectargs);
    EOSSTS Read(const COsSocket::ReadArgs& a_readargs, size_t* a_psizetRead);
    EOSSTS Write(const COsSocket::WriteArgs& a_writeargs, size_t* a_psizetWritten);
    EOSSTS TrySend(const void* a_pvBuffer, size_t a_sizetBuffer, size_t* a_psizetSent);
    EOSSTS EndSending();
    EOSSTS PeerOwner(PlatSocketOwner* a_pplatsocketowner);
    EOSSTS Unsent(size_t* a_psizetBytes);
    EOSSTS Select(const COsSocket::SelectArgs& a_selectargs);
    void Cancel();
    bool Disconnect(bool a_blGraceful);   // false: an operation is still in progress, its handles stay open
    void LeaveToParent();
    EOSSTS GetInfo(char* a_szHost, char* a_szPort) const;
    static EOSSTS ResolveHost(const char* a_szHost, char* a_szAddress);

private:
    EOSSOCKETTYPE Type() const { return m_psocketstate->eossockettype.load(); }
    int TypeNumber() const { return static_cast<int>(Type()); }
    int Port() const { return m_psocketstate->u16Port; }
    EOSSTS Unsupported() const;   // logs, EOSSTS_FAIL

    // Create, listen, accept.
    EOSSTS CreateTcp(const char* a_szHost, const char* a_szPort, bool a_blSource, COsSocketImpl* a_possocketimplSource);
    EOSSTS ShareListener(COsSocketImpl* a_possocketimplSource);
    EOSSTS MakeListener(const char* a_szPort, bool* a_pblPort);
    bool BindListener(const PlatAddress& a_plataddress);
    EOSSTS CreateCancelEvent();
    EOSSTS AcceptTcp(COsSync* a_possyncStop);
    EOSSTS AcceptShared();
    EOSSTS WaitForConnection(COsSync* a_possyncStop);
    EOSSTS Adopt(PlatHandle a_plathandleConnected);
    void ForgetListener();
    void ReleaseLeftovers();
    void LogAddress(uint32_t a_u32Level, const PlatAddress& a_plataddress) const;

    // Connect.
    bool ChooseType(const char* a_szHost, const char* a_szPort, const char* a_szName);
    EOSSTS ConnectShared(uint64_t a_u64ProcessId);
    EOSSTS ConnectTcp(const COsSocket::ConnectArgs& a_connectargs, const char* a_szHost, const char* a_szPort);
    bool FindPeer();
    bool CreateConnectSocket(const COsSocket::ConnectArgs& a_connectargs);
    void PreparePort(const char* a_szPort);
    bool WatchProcess(uint64_t a_u64ProcessId);
    void ForgetProcess();
    bool StartConnect();
    EOSSTS AwaitConnect(int32_t a_i32Timeout);
    EOSSTS ConnectStatus(uint32_t a_u32Result);

    // Read and write.
    EOSSTS ReadTcp(const COsSocket::ReadArgs& a_readargs, PlatHandle a_plathandle, size_t* a_psizetRead);
    std::optional<EOSSTS> WaitForBytes(const COsSocket::ReadArgs& a_readargs, PlatHandle a_plathandle, int* a_piPass,
                                       size_t* a_psizetRead);
    bool TakeBytes(const COsSocket::ReadArgs& a_readargs, PlatHandle a_plathandle, size_t* a_psizetRead);
    EOSSTS FailedWait(const COsSocket::ReadArgs& a_readargs, EOSSTS a_eossts) const;
    EOSSTS WriteTcp(const COsSocket::WriteArgs& a_writeargs, PlatHandle a_plathandle, size_t* a_psizetWritten);
    EOSSTS WaitForRoom(const COsSocket::WriteArgs& a_writeargs);
    bool SendWithRetries(const COsSocket::WriteArgs& a_writeargs, PlatHandle a_plathandle, size_t* a_psizetWritten);

    // Disconnect.
    bool BecomeCloser();
    bool WaitForOperations();
    void WaitForPeer();
    void Release();

    // The wait.
    EOSSTS SelectOpen(const COsSocket::SelectArgs& a_selectargs);
    std::optional<EOSSTS> Await(SocketWait* a_psocketwait);
    std::optional<EOSSTS> BeginWait(SocketWait* a_psocketwait);
    bool LookFirst(SocketWait* a_psocketwait);
    bool MayRetry(const COsSocket::SelectArgs& a_selectargs, int a_iRetries) const;
    EOSSTS EndWait(const SocketWait& a_socketwait, uint32_t a_u32Result);
    EOSSTS Enumerate(const SocketWait& a_socketwait);
    PlatHandle ReportHandle(SocketWait* a_psocketwait);
    bool SelectEvent(SocketEvent* a_psocketevent, PlatHandle a_plathandleSocket, uint32_t a_u32Mask);
    bool ReadIsInProgress() const { return m_psocketstate->u32Operations > SocketOperation::OS_OPERATION_ALL; }
    bool CancelIsRequested() const { return m_psocketstate->blCancelRequested.load(); }
    void RequestCancel();
    void ConsumeCancel();
    void CancelTcp();
    void Wake();

    // The side log, for the calls of SOCKETSIDELOG.
    void SideLog(uint32_t a_u32Line, const char* a_szFormat, ...) const OS_PRINTFLIKE(3, 4);

    std::unique_ptr<SocketState> m_psocketstate;
};
static_assert(sizeof(COsSocketImpl) == 8, "the size is part of the log");

// Writes to the side log and, with a_blLogging, to the log.
#define SOCKETTELL(a_blLogging, a_u32Level, ...)                                                                       \
    do                                                                                                                 \
    {                                                                                                                  \
        if (m_psocketstate->blSideLog)                                                                                 \
            SideLog(static_cast<uint32_t>(__LINE__), __VA_ARGS__);                                                     \
        if (a_blLogging)                                                                                               \
            OSLOG((a_u32Level), __VA_ARGS__);                                                                          \
    } while (false)

// The data trace of one receive or send, if configured.
void OsSocketTraceReceive(const void* a_pvBytes, size_t a_sizetBytes);
void OsSocketTraceSend(const void* a_pvBytes, size_t a_sizetBytes);

// Maps a system error: EOSSTS_NOMEMORY for a lack of descriptors, memory or buffers, else EOSSTS_FAIL.
EOSSTS OsSocketStatus(uint32_t a_u32Error);

// Parses a port number; false when it is out of range.
bool OsSocketParsePort(const char* a_szPort, uint16_t* a_pu16Port);

// Resolves a host name to its first IPv4 address. False when it has none (logged).
bool OsSocketLookUp(const char* a_szHost, PlatAddress* a_pplataddress);
