/* floor_port.c: bind a port of 127.0.0.1, print it, end: the least that a start can cost. */
#include <arpa/inet.h>
#include <stdio.h>
#include <sys/socket.h>

int main(void)
{
    struct sockaddr_in address = {.sin_family = AF_INET, .sin_addr.s_addr = htonl(INADDR_LOOPBACK)};
    socklen_t size = sizeof address;
    const int listener = socket(AF_INET, SOCK_STREAM, 0);
    if (bind(listener, (struct sockaddr*)&address, size) != 0 ||
        getsockname(listener, (struct sockaddr*)&address, &size) != 0)
        return 1;
    printf("<lc><lcport>%d</lcport></lc>", ntohs(address.sin_port));
    return 0;
}
