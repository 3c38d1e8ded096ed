// peer_glog.cpp: lines through glog, which flushes each.
#include "peer_support.h"

#include <glog/logging.h>
#include <iomanip>

int main(int a_iArguments, char** a_aszArgument)
{
    if (a_iArguments != 4)
        return 2;
    FLAGS_logtostderr = false;
    FLAGS_logbuflevel = -1;   // nothing is buffered
    FLAGS_timestamp_in_logfile_name = false;
    google::SetLogDestination(google::GLOG_INFO, a_aszArgument[1]);
    google::InitGoogleLogging(a_aszArgument[0]);
    return RunPeer(a_aszArgument, [&](uint32_t a_u32Thread, uint32_t a_u32Line) {
        LOG(INFO) << "thread " << a_u32Thread << " line " << std::setw(6) << std::setfill('0') << a_u32Line
                  << " event <" << BENCH_EVENT << "> signalled after " << BENCH_MILLISECONDS << " ms, " << BENCH_WAITERS
                  << " waiters";
    });
}
