// application_start.cpp: an application that starts the library, and with it its collector, and prints how many
// microseconds that took; 0 when it has no collector then. With "bare" it only starts the collector program beside it
// and reads the reply.
#include "os_cosarguments.h"
#include "os_cosservices.h"

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <spawn.h>
#include <string>
#include <string_view>
#include <unistd.h>

static bool StartLibrary()
{
    OsServicesSetDocument(
        "<arguments><uniquename>start</uniquename><entity>application</entity><loglevel>0</loglevel></arguments>");
    return OsServicesStart() == EOSSTS_SUCCESS && OsArgumentsCollector().i32Port != 0;
}

static bool StartCollectorAlone()
{
    std::string strProgram = std::filesystem::read_symlink("/proc/self/exe").replace_filename("logcollector");
    std::string strOwner = "--xml=<lc><lcpidapp>" + std::to_string(getpid()) + "</lcpidapp></lc>";
    char* const aszArgument[] = {strProgram.data(), strOwner.data(), nullptr};
    int aiPipe[2];
    posix_spawn_file_actions_t actions;
    pid_t pid = 0;
    if (pipe(aiPipe) != 0)
        return false;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, aiPipe[1], STDOUT_FILENO);
    posix_spawn_file_actions_addclose(&actions, aiPipe[0]);
    const bool blStarted = posix_spawn(&pid, strProgram.c_str(), &actions, nullptr, aszArgument, environ) == 0;
    close(aiPipe[1]);
    posix_spawn_file_actions_destroy(&actions);

    std::string strReply;
    char achPart[256];
    for (ssize_t ssizet = 1; blStarted && ssizet > 0 && strReply.find("</lc>") == std::string::npos;)
    {
        ssizet = read(aiPipe[0], achPart, sizeof achPart);
        strReply.append(achPart, static_cast<size_t>(ssizet > 0 ? ssizet : 0));
    }
    return strReply.find("</lc>") != std::string::npos;
}

int main(int a_iArguments, char** a_aszArgument)
{
    const bool blBare = a_iArguments > 1 && std::string_view(a_aszArgument[1]) == "bare";
    const auto start = std::chrono::steady_clock::now();
    const bool blStarted = blBare ? StartCollectorAlone() : StartLibrary();
    const std::chrono::duration<double, std::micro> duration = std::chrono::steady_clock::now() - start;
    std::printf("%.0f\n", blStarted ? duration.count() : 0.0);
    std::fflush(stdout);
    OsServicesStop();
    return 0;
}
