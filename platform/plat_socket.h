// plat_socket.h: TCP over IPv4, and the event that tells what a socket has to report.
//
// Every socket is non-blocking from its creation on. A write to a connection that has gone raises no signal.
#pragma once

#include "plat_types.h"
#include "plat_user.h"

// What a socket can report.
inline constexpr uint32_t PLAT_SOCKET_READ = 0x01;      // bytes have arrived
inline constexpr uint32_t PLAT_SOCKET_WRITE = 0x02;     // bytes can be sent
inline constexpr uint32_t PLAT_SOCKET_ACCEPT = 0x08;    // a connection waits
inline constexpr uint32_t PLAT_SOCKET_CONNECT = 0x10;   // the attempt to connect is over, well or not
inline constexpr uint32_t PLAT_SOCKET_CLOSE = 0x20;     // the peer has closed or the connection is broken

enum PlatSocketOption : uint32_t
{
    PLAT_SOCKETOPTION_KEEPALIVE = 0,
    PLAT_SOCKETOPTION_NODELAY = 1,
    PLAT_SOCKETOPTION_REUSEADDRESS = 2,   // a listener on a fixed port may be restarted at once
};

struct PlatAddress
{
    uint8_t au8Address[4];   // network order: 127.0.0.1 is {127, 0, 0, 1}
    uint16_t u16Port;        // host order
};

// Makes the sockets of this process usable; again is harmless. On a system where every socket counts against a
// limit of open descriptors, raises the process's limit to what it is allowed. PlatSocketCleanup ends it.
bool PlatSocketStartup();
void PlatSocketCleanup();

PlatHandle PlatSocketCreate();
bool PlatSocketBind(PlatHandle a_plathandle, const PlatAddress* a_pplataddress);
bool PlatSocketListen(PlatHandle a_plathandle, uint32_t a_u32Backlog);

// Takes a connection that waits. PLAT_ERROR_WOULDBLOCK when none does; one that the system says was given up is
// skipped. One that broke after bytes had arrived is returned, for they are to be read. *a_pplataddress receives the
// peer, null if not wanted.
PlatHandle PlatSocketAccept(PlatHandle a_plathandle, PlatAddress* a_pplataddress);

// Starts to connect. Normally fails with PLAT_ERROR_WOULDBLOCK: the end of the attempt is reported as
// PLAT_SOCKET_CONNECT, also when the peer refuses at once, and only the first read or write tells how it ended.
// Port 0 fails at once with PLAT_ERROR_ADDRNOTAVAIL.
bool PlatSocketConnect(PlatHandle a_plathandle, const PlatAddress* a_pplataddress);

// Takes what has arrived, up to a_sizetBytes. *a_psizetRead 0 with true: the peer has closed and everything was
// read. PLAT_ERROR_WOULDBLOCK: nothing has arrived.
bool PlatSocketReceive(PlatHandle a_plathandle, void* a_pvBuffer, size_t a_sizetBytes, size_t* a_psizetRead);

// Hands over as many bytes as the system takes; PLAT_ERROR_WOULDBLOCK when it takes none.
bool PlatSocketSend(PlatHandle a_plathandle, const void* a_pvBuffer, size_t a_sizetBytes, size_t* a_psizetSent);

bool PlatSocketWaiting(PlatHandle a_plathandle, size_t* a_psizetBytes);   // bytes that have arrived and are not read
bool PlatSocketShutdown(PlatHandle a_plathandle, bool a_blReceive, bool a_blSend);
bool PlatSocketSetOption(PlatHandle a_plathandle, PlatSocketOption a_platsocketoption, bool a_blOn);

// How much the system keeps of what was sent and has not arrived, in bytes and roughly. Before the connect.
bool PlatSocketSetSendBuffer(PlatHandle a_plathandle, uint32_t a_u32Bytes);

// How much the system keeps of what has arrived and was not read, in bytes and roughly. Set on a listener it holds for
// the connections that are accepted from it. Before the connect or the listen.
bool PlatSocketSetReceiveBuffer(PlatHandle a_plathandle, uint32_t a_u32Bytes);
bool PlatSocketName(PlatHandle a_plathandle, PlatAddress* a_pplataddress);   // the address that it is bound to

// What of a_u32Mask the socket has to report now, 0 for nothing. A connection whose peer has closed reports
// PLAT_SOCKET_CLOSE and never PLAT_SOCKET_WRITE: what would be sent now would be lost. PLAT_SOCKET_READ goes on
// until the last byte is read, and comes together with PLAT_SOCKET_CLOSE then.
uint32_t PlatSocketPoll(PlatHandle a_plathandle, uint32_t a_u32Mask);

// A socket event: ready (PlatWaitAny) while the socket that was selected onto it has something of the mask to
// report. A connection that has closed or broken makes it ready whatever the mask, so that a mask should ask for
// PLAT_SOCKET_CLOSE. Selecting again replaces the mask; 0 ends it. An event serves one socket at a time, a socket may
// be on several events. PlatEventSet and PlatEventReset do nothing to it.
PlatHandle PlatSocketEventCreate();
bool PlatSocketEventSelect(PlatHandle a_plathandle, PlatHandle a_plathandleEvent, uint32_t a_u32Mask);

// Whether the process that was asked about has that very socket open.
enum PlatHolds : uint32_t
{
    PLAT_HOLDS_UNKNOWN = 0,   // none was asked about, or it has ended, or this process may not know what it has open
    PLAT_HOLDS_YES = 1,
    PLAT_HOLDS_NO = 2,
};

struct PlatSocketOwner
{
    PlatOwner platowner;
    uint64_t u64User;        // the system's number of the user; 0 when it is unknown or nobody
    uint64_t u64ProcessId;   // who has it open; 0 where the system does not tell
    uint64_t u64Unread;      // bytes that have arrived there and were not read
    bool blHeld;             // a process has it open: a connection was accepted and is not closed
    PlatHolds platholds;
};

// Who has the other end of a connection to this machine; nobody when it has broken. One that waits to be accepted may
// already be told as its listener's. False, with PLAT_OWNER_UNKNOWN, where the system cannot tell.
bool PlatSocketPeerOwner(PlatHandle a_plathandle, PlatSocketOwner* a_pplatsocketowner);

// Who listens on a port of 127.0.0.1, also where the listener takes connections for every address, and whether it is
// the process a_u64ProcessId (0: none is asked about). u64Unread counts the connections that wait. False, with
// PLAT_OWNER_UNKNOWN, where the system cannot tell.
bool PlatSocketListenerOwner(uint16_t a_u16Port, uint64_t a_u64ProcessId, PlatSocketOwner* a_pplatsocketowner);

// How many connections this machine has at a port of 127.0.0.1 that somebody serves: those that are open at the
// server's end, whoever has them, also while they wait to be accepted. False where the system does not tell.
bool PlatSocketCountConnections(uint16_t a_u16Port, uint32_t* a_pu32Count);

// Bytes that were sent and that the other end's system has not taken yet. An end of the sending that it has not taken
// may count as one.
bool PlatSocketUnsent(PlatHandle a_plathandle, size_t* a_psizetBytes);

// Dotted text to address and back; a_szText has room for 16 characters. False (87): no such text.
bool PlatAddressFromText(const char* a_szText, PlatAddress* a_pplataddress);
bool PlatAddressToText(const PlatAddress* a_pplataddress, char* a_szText, size_t a_sizetText);

// The first IPv4 address of a host name. 11001: not found.
bool PlatAddressResolve(const char16_t* a_wszHost, PlatAddress* a_pplataddress);
