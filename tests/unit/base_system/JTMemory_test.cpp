#include "JTMemory.h"
#include "ChildProcess.h"
#include "TempRoot.h"

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <gtest/gtest.h>
#include <memory>
#include <new>
#include <string>
#include <vector>

namespace
{
bool isAligned(const void* block)
{
    return reinterpret_cast<uintptr_t>(block) % alignof(std::max_align_t) == 0;
}
}

// The test binary runs without "--memtrace=", so the default level 1 is in force.
TEST(JTMemory, CountsRequestedBytesAndKeepsAlignmentOfEveryNewForm)
{
    ASSERT_EQ(JTMemory::getTraceLevel(), 1u);
    EXPECT_EQ(JTMemory::getHeaderSize(), alignof(std::max_align_t));
    std::vector<char*> blocks;
    blocks.reserve(16);
    const size_t start = JTMemory::getAllocatedBytes();
    size_t requested = 0;
    for (size_t size = 1; size <= 67; size += 11) {
        blocks.push_back(new char[size]);
        requested += size;
        EXPECT_TRUE(isAligned(blocks.back())) << size;
    }
    auto* single = new long double(1.0L);
    auto* quiet = new (std::nothrow) std::max_align_t[3];
    EXPECT_TRUE(isAligned(single) && isAligned(quiet));
    EXPECT_EQ(JTMemory::getAllocatedBytes() - start, requested + sizeof(long double) + 3 * sizeof(std::max_align_t));
    delete single;
    delete[] quiet;
    for (char* block : blocks)
        delete[] block;
    EXPECT_EQ(JTMemory::getAllocatedBytes(), start);
}

TEST(JTMemory, EdgeCasesNeitherFailNorMiscount)
{
    const size_t start = JTMemory::getAllocatedBytes();
    errno = EBADF;
    EXPECT_EQ(JTMemory::alloc(0), nullptr);
    EXPECT_EQ(errno, 0) << "alloc clears the error number";
    EXPECT_EQ(JTMemory::allocChecked(0), nullptr) << "and the checked form does not end the process";
    JTMemory::release(nullptr);
    releaseMemoryEx(nullptr, 12);
    char* a = new char[0];  // operator new(0) still has to give a distinct block
    char* b = new char[0];
    EXPECT_NE(a, b);
    delete[] a;
    delete[] b;

    void* block = allocateCachedMemory(100);
    EXPECT_EQ(JTMemory::getAllocatedBytes() - start, 100u);
    releaseMemoryEx(block, 3);  // the header's size counts, not the caller's

    const size_t tooBig = size_t(1) << 33;  // beyond the size field
    EXPECT_EQ(JTMemory::alloc(tooBig), nullptr);
    EXPECT_EQ(errno, ENOMEM);
    EXPECT_EQ(new (std::nothrow) char[tooBig], nullptr);
    EXPECT_EQ(JTMemory::getAllocatedBytes(), start);

    errno = ENOENT;
    auto text = std::make_unique<std::string>(200, 'x');
    EXPECT_EQ(errno, ENOENT) << "operator new keeps the error number";
}

TEST(JTMemoryDeathTest, FailedCheckedAllocationWritesBacktraceAndExits)
{
    TempRoot root;
    const size_t refused = 0xFFFFFFF8u;  // fits the request, not the size field plus header
    EXPECT_EXIT(JTMemory::allocChecked(refused), ::testing::ExitedWithCode(1), "");
    std::vector<std::string> files = root.list("/dev/shm");
    ASSERT_EQ(files.size(), 1u);
    EXPECT_EQ(files[0], "PID" + files[0].substr(3, files[0].size() - 7) + ".ass");
    EXPECT_NE(readFile(root.path() + "/dev/shm/" + files[0])
                  .find("\n[backtrace] INFO - failed to allocate 4294967288 bytes\n"),
              std::string::npos);
}
