// plat_socket_resolve.cpp: the address of a host name. On its own, because only who looks names up should bring the
// system's resolver into a program that is linked statically.
#include "plat_posix.h"
#include "plat_socket.h"

#include <cstring>
#include <netdb.h>
#include <netinet/in.h>
#include <new>
#include <sys/socket.h>

bool PlatAddressResolve(const char16_t* a_wszHost, PlatAddress* a_pplataddress)
try
{
    std::string strHost;
    if (!PosixToUtf8(a_wszHost, strHost))
        return false;
    struct addrinfo addrinfoHint = {};
    addrinfoHint.ai_family = AF_INET;
    addrinfoHint.ai_socktype = SOCK_STREAM;
    struct addrinfo* paddrinfo = nullptr;
    if (getaddrinfo(strHost.c_str(), nullptr, &addrinfoHint, &paddrinfo) != 0 || !paddrinfo)
        return PosixFail(PLAT_ERROR_HOSTNOTFOUND);
    sockaddr_in address;
    memcpy(&address, paddrinfo->ai_addr, sizeof address);
    freeaddrinfo(paddrinfo);
    memcpy(a_pplataddress->au8Address, &address.sin_addr, sizeof a_pplataddress->au8Address);
    a_pplataddress->u16Port = 0;
    return true;
}
catch (const std::bad_alloc&)
{
    return PosixFail(PLAT_ERROR_NOMEMORY);
}
