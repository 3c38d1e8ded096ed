// application_start.cpp: an application that starts the library, and with it its collector, and prints how many
// microseconds that took; 0 when it has no collector then.
#include "os_cosarguments.h"
#include "os_cosservices.h"

#include <chrono>
#include <cstdio>

int main()
{
    OsServicesSetDocument(
        "<arguments><uniquename>start</uniquename><entity>application</entity><loglevel>0</loglevel></arguments>");
    const auto start = std::chrono::steady_clock::now();
    OsServicesStart();
    const std::chrono::duration<double, std::micro> duration = std::chrono::steady_clock::now() - start;
    std::printf("%.0f\n", OsArgumentsCollector().i32Port != 0 ? duration.count() : 0.0);
    std::fflush(stdout);
    OsServicesStop();
    return 0;
}
