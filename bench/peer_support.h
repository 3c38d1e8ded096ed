// peer_support.h: the frame of a peer's program.
//
//     PROGRAM FILE THREADS LINES
//
// writes LINES lines with each of THREADS threads and prints the seconds that it took, as "<lc>SECONDS</lc>".
#pragma once

#include "bench_lines.h"

#include <cstdio>
#include <cstdlib>

template <class Work>
int RunPeer(char** a_aszArgument, Work a_work)
{
    const LineRun linerun{static_cast<uint32_t>(std::atoi(a_aszArgument[2])),
                          static_cast<uint32_t>(std::atoi(a_aszArgument[3]))};
    std::printf("<lc>%.9f</lc>", SecondsOfLines(linerun, a_work));
    return 0;
}
