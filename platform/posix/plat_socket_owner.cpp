// plat_socket_owner.cpp: who has a socket of this machine, asked of the kernel's socket diagnosis.
//
// A question names one socket by its addresses and is answered with one row, or with "not found", before the call that
// asks it returns. The kernel looks up as it does for a packet: a socket of IPv6 that serves IPv4 as well is found by
// its IPv4 addresses, and where there is no connection the listener on its port is, so that a row is looked at before
// it is believed. Nothing is kept between two questions but whether the kernel answers at all.
#include "plat_socket.h"

#include "plat_posix.h"

#include <arpa/inet.h>
#include <atomic>
#include <cstring>
#include <dirent.h>
#include <linux/inet_diag.h>
#include <linux/netlink.h>
#include <linux/sock_diag.h>
#include <memory>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <new>
#include <sys/socket.h>

namespace
{
struct DiagRequest
{
    nlmsghdr header;
    inet_diag_req_v2 body;
};

struct DiagReply
{
    alignas(nlmsghdr) char achBytes[512];
    ssize_t ssizetLength;
};

enum class Answer
{
    Row,
    NotFound,
    Failed,   // the kernel could not be asked, or does not tell
};
}   // namespace

// ---------------------------------------------------------------------------------------------------- one question

// What a part of a message begins with; false when it is shorter than that.
template <class Part>
static bool ReadPart(const DiagReply& a_diagreply, size_t a_sizetOffset, Part& a_part)
{
    if (a_diagreply.ssizetLength < static_cast<ssize_t>(a_sizetOffset + sizeof a_part))
        return false;
    memcpy(&a_part, a_diagreply.achBytes + a_sizetOffset, sizeof a_part);
    return true;
}

static Answer Understand(const DiagReply& a_diagreply, inet_diag_msg& a_row)
{
    nlmsghdr header = {};
    nlmsgerr error = {};
    if (!ReadPart(a_diagreply, 0, header))
        return Answer::Failed;
    if (header.nlmsg_type == SOCK_DIAG_BY_FAMILY)
        return ReadPart(a_diagreply, NLMSG_HDRLEN, a_row) ? Answer::Row : Answer::Failed;
    const bool blNotFound =
        header.nlmsg_type == NLMSG_ERROR && ReadPart(a_diagreply, NLMSG_HDRLEN, error) && error.error == -ENOENT;
    return blNotFound ? Answer::NotFound : Answer::Failed;
}

// Asks for the socket that has a_addressOwn as its own address and is connected to a_addressOther, or listens when that
// is 0.
static Answer Ask(const sockaddr_in& a_addressOwn, const sockaddr_in& a_addressOther, inet_diag_msg& a_row)
{
    const PosixDescriptor posixdescriptor(
        socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_SOCK_DIAG));
    if (!posixdescriptor.IsOpen())
        return Answer::Failed;

    DiagRequest diagrequest = {};
    diagrequest.header.nlmsg_len = sizeof diagrequest;
    diagrequest.header.nlmsg_type = SOCK_DIAG_BY_FAMILY;
    diagrequest.header.nlmsg_flags = NLM_F_REQUEST;
    diagrequest.body.sdiag_family = AF_INET;
    diagrequest.body.sdiag_protocol = IPPROTO_TCP;
    diagrequest.body.idiag_states = ~0u;
    diagrequest.body.id.idiag_sport = a_addressOwn.sin_port;
    diagrequest.body.id.idiag_dport = a_addressOther.sin_port;
    diagrequest.body.id.idiag_src[0] = a_addressOwn.sin_addr.s_addr;
    diagrequest.body.id.idiag_dst[0] = a_addressOther.sin_addr.s_addr;
    diagrequest.body.id.idiag_cookie[0] = INET_DIAG_NOCOOKIE;
    diagrequest.body.id.idiag_cookie[1] = INET_DIAG_NOCOOKIE;
    if (PosixRetry([&] { return send(posixdescriptor.Get(), &diagrequest, sizeof diagrequest, 0); }) < 0)
        return Answer::Failed;

    DiagReply diagreply;
    diagreply.ssizetLength =
        PosixRetry([&] { return recv(posixdescriptor.Get(), diagreply.achBytes, sizeof diagreply.achBytes, 0); });
    return Understand(diagreply, a_row);
}

// ------------------------------------------------------------------------------------------ whether it is answered

static sockaddr_in LoopbackAddress(uint16_t a_u16Port)
{
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(a_u16Port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

// A kernel without the part that looks sockets up says "not found" as well. One that finds a listener of ours has it.
static Answer AskForOneOfOurs()
{
    const PosixDescriptor posixdescriptor(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, IPPROTO_TCP));
    sockaddr_in address = LoopbackAddress(0);
    socklen_t socklen = sizeof address;
    auto* psockaddr = reinterpret_cast<sockaddr*>(&address);
    inet_diag_msg row = {};
    if (!posixdescriptor.IsOpen() || bind(posixdescriptor.Get(), psockaddr, socklen) != 0 ||
        listen(posixdescriptor.Get(), 1) != 0 || getsockname(posixdescriptor.Get(), psockaddr, &socklen) != 0)
        return Answer::Failed;
    return Ask(address, {}, row);
}

// Like Ask, but what is not found is not there. Once it is known that the kernel answers, or that it does not, this
// stays so.
static Answer Find(const sockaddr_in& a_addressOwn, const sockaddr_in& a_addressOther, inet_diag_msg& a_row)
{
    static std::atomic<Answer> s_answerKnown{Answer::Failed};   // Row: it answers; NotFound: it never does
    if (s_answerKnown.load(std::memory_order_relaxed) == Answer::NotFound)
        return Answer::Failed;
    const Answer answer = Ask(a_addressOwn, a_addressOther, a_row);
    if (answer == Answer::Row)
        s_answerKnown.store(answer, std::memory_order_relaxed);
    if (answer != Answer::NotFound || s_answerKnown.load(std::memory_order_relaxed) == Answer::Row)
        return answer;

    const Answer answerOurs = AskForOneOfOurs();
    if (answerOurs != Answer::Failed)
        s_answerKnown.store(answerOurs, std::memory_order_relaxed);
    return answerOurs == Answer::Row ? Answer::NotFound : Answer::Failed;
}

// --------------------------------------------------------------------------------------------- what a row says

static PlatOwner OwnerOf(const inet_diag_msg& a_row)
{
    // A connection that waits to be accepted has no inode yet, one that was closed has none any more.
    const bool blWaits = a_row.idiag_state == TCP_ESTABLISHED || a_row.idiag_state == TCP_CLOSE_WAIT;
    if (a_row.idiag_inode == 0 && !(blWaits && a_row.idiag_uid != 0))
        return PLAT_OWNER_NONE;
    return PosixOwnerOf(a_row.idiag_uid);
}

// The end of the stream counts as a byte until it is read.
static uint32_t UnreadOf(const inet_diag_msg& a_row)
{
    const uint8_t u8State = a_row.idiag_state;
    const bool blEndArrived = u8State == TCP_CLOSE_WAIT || u8State == TCP_LAST_ACK || u8State == TCP_CLOSING;
    return a_row.idiag_rqueue - (blEndArrived && a_row.idiag_rqueue > 0 ? 1 : 0);
}

static PlatSocketOwner Tell(const inet_diag_msg& a_row)
{
    const PlatOwner platowner = OwnerOf(a_row);
    return {platowner,
            platowner == PLAT_OWNER_NONE ? 0 : a_row.idiag_uid,
            0,
            UnreadOf(a_row),
            a_row.idiag_inode != 0,
            PLAT_HOLDS_UNKNOWN};
}

static bool TellNone(Answer a_answer, PlatSocketOwner* a_pplatsocketowner)
{
    if (a_answer == Answer::Failed)
        return PosixFail(PLAT_ERROR_GENFAILURE);
    *a_pplatsocketowner = {};
    a_pplatsocketowner->platowner = PLAT_OWNER_NONE;
    return true;
}

bool PlatSocketPeerOwner(PlatHandle a_plathandle, PlatSocketOwner* a_pplatsocketowner)
{
    *a_pplatsocketowner = {};
    if (PosixKindOf(a_plathandle) != PosixKind::Socket)
        return PosixFail(PLAT_ERROR_NOTSOCKET);
    const int iSocket = PosixDescriptorOf(a_plathandle);
    sockaddr_in addressOurs = {};
    sockaddr_in addressTheirs = {};
    socklen_t socklenOurs = sizeof addressOurs;
    socklen_t socklenTheirs = sizeof addressTheirs;
    if (getsockname(iSocket, reinterpret_cast<sockaddr*>(&addressOurs), &socklenOurs) != 0 ||
        getpeername(iSocket, reinterpret_cast<sockaddr*>(&addressTheirs), &socklenTheirs) != 0)
        return errno == ENOTCONN ? TellNone(Answer::NotFound, a_pplatsocketowner) : PosixFailErrno();

    inet_diag_msg row = {};
    const Answer answer = Find(addressTheirs, addressOurs, row);
    if (answer != Answer::Row || row.idiag_state == TCP_LISTEN)
        return TellNone(answer, a_pplatsocketowner);
    *a_pplatsocketowner = Tell(row);
    return true;
}

// A process that has ended, or is about to, has no descriptors any more.
static PlatHolds Holds(uint64_t a_u64ProcessId, uint32_t a_u32Inode)
try
{
    const std::string strSocket = "socket:[" + std::to_string(a_u32Inode) + "]";
    const std::unique_ptr<DIR, int (*)(DIR*)> uniqueFolder(
        opendir(("/proc/" + std::to_string(a_u64ProcessId) + "/fd").c_str()), closedir);
    PlatHolds platholds = PLAT_HOLDS_UNKNOWN;
    while (const dirent* pdirent = uniqueFolder ? readdir(uniqueFolder.get()) : nullptr)
    {
        char achLink[32];
        const ssize_t ssizetLink = readlinkat(dirfd(uniqueFolder.get()), pdirent->d_name, achLink, sizeof achLink);
        if (ssizetLink < 0)
            continue;
        platholds = PLAT_HOLDS_NO;
        if (std::string_view(achLink, static_cast<size_t>(ssizetLink)) == strSocket)
            return PLAT_HOLDS_YES;
    }
    return platholds;
}
catch (const std::bad_alloc&)
{
    return PLAT_HOLDS_UNKNOWN;
}

bool PlatSocketListenerOwner(uint16_t a_u16Port, uint64_t a_u64ProcessId, PlatSocketOwner* a_pplatsocketowner)
{
    *a_pplatsocketowner = {};
    inet_diag_msg row = {};
    const Answer answer = Find(LoopbackAddress(a_u16Port), {}, row);
    if (answer != Answer::Row || row.idiag_state != TCP_LISTEN)
        return TellNone(answer, a_pplatsocketowner);
    *a_pplatsocketowner = Tell(row);
    a_pplatsocketowner->platholds = a_u64ProcessId ? Holds(a_u64ProcessId, row.idiag_inode) : PLAT_HOLDS_UNKNOWN;
    a_pplatsocketowner->u64ProcessId = a_pplatsocketowner->platholds == PLAT_HOLDS_YES ? a_u64ProcessId : 0;
    return true;
}
