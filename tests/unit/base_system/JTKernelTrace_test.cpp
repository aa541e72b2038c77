#include "JTKernelTrace.h"

#include <gtest/gtest.h>

// Whether tracefs is there or not, well-formed events succeed: a kernel without it counts as one
// without instrumentation.
TEST(JTKernelTrace, WellFormedEventsSucceedAndEmptyBlocksAreRefused)
{
    const unsigned char block[] = {0x01, 0xAB};
    EXPECT_TRUE(JTKernelTrace::addStringUserEvent(4, "TraceThread started!"));
    EXPECT_TRUE(JTKernelTrace::addSimpleUserEvent(5, -1, 2));
    EXPECT_TRUE(JTKernelTrace::addComplexUserEvent(6, block, sizeof(block)));
    EXPECT_FALSE(JTKernelTrace::addComplexUserEvent(6, block, 0));
    EXPECT_FALSE(JTKernelTrace::addComplexUserEvent(6, nullptr, 2));
    EXPECT_FALSE(JTKernelTrace::addStringUserEvent(4, nullptr));
}
