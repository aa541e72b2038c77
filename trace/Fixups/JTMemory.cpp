#include "JTMemory.h"

#include "JTBacktrace.h"
#include "JTError.h"
#include "JTStartupOptions.h"

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

namespace
{
// The header keeps the caller's block at malloc's alignment; its first 4 bytes hold the size.
constexpr size_t kHeaderSize = alignof(std::max_align_t);
static_assert(kHeaderSize >= sizeof(uint32_t), "header too small for the size field");
constexpr size_t kMaxTracedSize = UINT32_MAX - kHeaderSize;

std::atomic<int> sLevel{-1};
std::atomic<size_t> sAllocatedBytes{0};

int traceLevel()
{
    int level = sLevel.load(std::memory_order_relaxed);
    if (level >= 0)
        return level;
    // Every thread computes the same value, so whichever store wins is right.
    int wanted = JTStartupOptions::getMemoryTraceLevel() == 0 ? 0 : 1;
    sLevel.compare_exchange_strong(level, wanted, std::memory_order_relaxed);
    return sLevel.load(std::memory_order_relaxed);
}

void* allocate(size_t size)
{
    errno = 0;
    if (size == 0)
        return nullptr;
    if (traceLevel() == 0) {
        void* block = std::malloc(size);
        if (block == nullptr)
            errno = ENOMEM;
        return block;
    }
    if (size > kMaxTracedSize) {
        errno = ENOMEM;
        return nullptr;
    }
    unsigned char* raw = static_cast<unsigned char*>(std::malloc(size + kHeaderSize));
    if (raw == nullptr) {
        errno = ENOMEM;
        return nullptr;
    }
    uint32_t stored = static_cast<uint32_t>(size);
    std::memcpy(raw, &stored, sizeof(stored));
    sAllocatedBytes.fetch_add(size, std::memory_order_relaxed);
    return raw + kHeaderSize;
}

void releaseBlock(void* block)
{
    if (block == nullptr)
        return;
    if (traceLevel() == 0) {
        std::free(block);
        return;
    }
    unsigned char* raw = static_cast<unsigned char*>(block) - kHeaderSize;
    uint32_t stored;
    std::memcpy(&stored, raw, sizeof(stored));
    sAllocatedBytes.fetch_sub(stored, std::memory_order_relaxed);
    std::free(raw);
}

void* allocateOrDie(size_t size)
{
    void* block = allocate(size);
    if (block != nullptr || size == 0)
        return block;
    char message[64];
    std::snprintf(message, sizeof(message), "failed to allocate %u bytes", static_cast<unsigned int>(size));
    JTBacktrace::doBacktrace(message, JTBacktrace::DEFAULT_DIRECTORY, "ass");
    JTError::criticalError(0, "%s", message);
}

// The global operators keep errno: allocating between a failed call and its report is common.
void* operatorNew(size_t size)
{
    const int savedErrno = errno;
    void* block = allocateOrDie(size == 0 ? 1 : size);
    errno = savedErrno;
    return block;
}

void* operatorNewNothrow(size_t size)
{
    const int savedErrno = errno;
    void* block = allocate(size == 0 ? 1 : size);
    if (block != nullptr)
        errno = savedErrno;
    return block;
}
}

void* JTMemory::alloc(size_t size)
{
    return allocate(size);
}

void* JTMemory::allocChecked(size_t size)
{
    return allocateOrDie(size);
}

void* JTMemory::allocCached(size_t size)
{
    return allocate(size);
}

void JTMemory::release(void* block)
{
    releaseBlock(block);
}

void JTMemory::release(void* block, size_t /*size*/)
{
    // The header, not the caller, knows the size that was counted.
    releaseBlock(block);
}

size_t JTMemory::getAllocatedBytes()
{
    return sAllocatedBytes.load(std::memory_order_relaxed);
}

unsigned int JTMemory::getTraceLevel()
{
    return static_cast<unsigned int>(traceLevel());
}

size_t JTMemory::getHeaderSize()
{
    return traceLevel() == 0 ? 0 : kHeaderSize;
}

extern "C" void* allocateMemory(size_t size)
{
    return JTMemory::alloc(size);
}
extern "C" void* allocateCheckedMemory(size_t size)
{
    return JTMemory::allocChecked(size);
}
extern "C" void* allocateCachedMemory(size_t size)
{
    return JTMemory::allocCached(size);
}
extern "C" void releaseMemory(void* block)
{
    JTMemory::release(block);
}
extern "C" void releaseMemoryEx(void* block, size_t size)
{
    JTMemory::release(block, size);
}

void* operator new(std::size_t size)
{
    return operatorNew(size);
}
void* operator new[](std::size_t size)
{
    return operatorNew(size);
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept
{
    return operatorNewNothrow(size);
}
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept
{
    return operatorNewNothrow(size);
}

void operator delete(void* block) noexcept
{
    releaseBlock(block);
}
void operator delete[](void* block) noexcept
{
    releaseBlock(block);
}
void operator delete(void* block, std::size_t) noexcept
{
    releaseBlock(block);
}
void operator delete[](void* block, std::size_t) noexcept
{
    releaseBlock(block);
}
void operator delete(void* block, const std::nothrow_t&) noexcept
{
    releaseBlock(block);
}
void operator delete[](void* block, const std::nothrow_t&) noexcept
{
    releaseBlock(block);
}
