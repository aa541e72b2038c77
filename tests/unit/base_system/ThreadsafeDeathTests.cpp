// Every death test of this program re-executes it: the allocator and the handlers are
// process-wide. The flag is set once the flags exist, from a test environment.
#include <gtest/gtest.h>

namespace
{
struct ThreadsafeDeathTests : ::testing::Environment
{
    void SetUp() override { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};
::testing::Environment* const kThreadsafeDeathTests = ::testing::AddGlobalTestEnvironment(new ThreadsafeDeathTests);
}
