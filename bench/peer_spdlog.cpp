// peer_spdlog.cpp: lines through spdlog, which flushes each.
#include "peer_support.h"

#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/spdlog.h>

int main(int a_iArguments, char** a_aszArgument)
{
    if (a_iArguments != 4)
        return 2;
    const auto logger = spdlog::basic_logger_mt("bench", a_aszArgument[1]);
    logger->flush_on(spdlog::level::trace);
    return RunPeer(a_aszArgument, [&](uint32_t a_u32Thread, uint32_t a_u32Line) {
        logger->info("thread {} line {:06} event <{}> signalled after {} ms, {} waiters", a_u32Thread, a_u32Line,
                     BENCH_EVENT, BENCH_MILLISECONDS, BENCH_WAITERS);
    });
}
