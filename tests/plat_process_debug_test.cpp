// plat_process_debug_test.cpp: a process knows whether it is being debugged.
#include "plat_process.h"

#include "traced_process.h"

#include <gtest/gtest.h>

TEST(PlatProcessDebug, OnlyAProcessThatIsTracedSaysSo)
{
    EXPECT_FALSE(PlatProcessIsDebugged());
    const int iTraced = InTracedProcess([] { return PlatProcessIsDebugged(); });
    if (iTraced < 0)
        GTEST_SKIP() << "no tracing on this machine";
    EXPECT_EQ(iTraced, 1);
}
