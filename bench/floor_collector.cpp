// floor_collector.cpp: one thread for each connection, which only receives and writes. No header, no list, no stop:
// the file is named by the sender's port. What the collector costs is told against this.
//
//     floor_collector FOLDER
#include <arpa/inet.h>
#include <cstdio>
#include <fcntl.h>
#include <memory>
#include <string>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

static constexpr size_t g_sizetBuffer = 65536;

static void Serve(int a_iConnection, const std::string& a_strPath)
{
    const std::unique_ptr<char[]> buffer(new char[g_sizetBuffer]);
    const int iFile = open(a_strPath.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0666);
    for (;;)
    {
        const ssize_t iReceived = recv(a_iConnection, buffer.get(), g_sizetBuffer, 0);
        if (iReceived <= 0 || write(iFile, buffer.get(), static_cast<size_t>(iReceived)) != iReceived)
            break;
    }
    close(iFile);
    close(a_iConnection);
}

int main(int a_iArguments, char** a_aszArgument)
{
    if (a_iArguments != 2)
        return 2;
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    const int iListener = socket(AF_INET, SOCK_STREAM, 0);
    bind(iListener, reinterpret_cast<sockaddr*>(&address), size);
    getsockname(iListener, reinterpret_cast<sockaddr*>(&address), &size);
    listen(iListener, 32);
    std::printf("<lc><lcport>%d</lcport></lc>", ntohs(address.sin_port));
    std::fflush(stdout);
    for (;;)
    {
        const int iConnection = accept(iListener, reinterpret_cast<sockaddr*>(&address), &size);
        if (iConnection < 0)
            return 1;
        std::thread(Serve, iConnection,
                    std::string(a_aszArgument[1]) + "/" + std::to_string(ntohs(address.sin_port)) + ".log")
            .detach();
    }
}
