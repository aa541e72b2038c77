// JTMemory: the process's memory allocator, with optional byte counting (the memory trace).
//
// This module also supplies the process's global allocation operators: operator new and new[] use
// allocChecked, their nothrow forms use alloc, and every operator delete (plain, sized, nothrow,
// array) uses release. The std::align_val_t forms are all left to the C++ library, which pairs
// them with each other. Because C++ requires operator new(0) to return a distinct pointer, the
// operators ask for one byte when zero bytes are requested; alloc(0) itself returns null. The
// operators also leave errno as it was on success, so that code reading errno after a failed
// system call may allocate in between.
//
// Memory trace: the level is taken on first use from JTStartupOptions::getMemoryTraceLevel() and
// kept for the life of the process (blocks made under one level could not be released under
// another). Level 0: blocks come straight from malloc. Level 1: every block is preceded by a
// header of alignof(std::max_align_t) bytes whose first 4 bytes hold the requested size, so the
// caller's block keeps the malloc alignment, and a process-wide counter of requested bytes is
// raised and lowered atomically (getAllocatedBytes). At level 1 a single block is limited to what
// 4 bytes can hold, less the header: larger requests fail like an exhausted heap.
//
// Errors: alloc, allocCached return null when size is 0 (errno 0) or when memory is exhausted
// (errno ENOMEM); they set errno to 0 first. allocChecked returns null only for size 0; when
// memory is exhausted it writes a backtrace "failed to allocate <n> bytes" to /dev/shm (extension
// "ass") and ends the process through JTError::criticalError. release ignores null.
//
// Underneath is malloc/free, so the sanitizers see every block. Safe before main() and from any
// thread.
#ifndef JTMEMORY_H
#define JTMEMORY_H

#include <cstddef>

class JTMemory
{
public:
    static void* alloc(size_t size);
    static void* allocChecked(size_t size);
    static void* allocCached(size_t size);
    static void release(void* block);
    static void release(void* block, size_t size);

    // Requested bytes currently held in blocks (always 0 at level 0).
    static size_t getAllocatedBytes();
    // The memory trace level in force (0 or 1); fixes it if nothing has been allocated yet.
    static unsigned int getTraceLevel();
    // Bytes placed in front of each block at the level in force.
    static size_t getHeaderSize();
};

extern "C" {
void* allocateMemory(size_t size);
void* allocateCheckedMemory(size_t size);
void* allocateCachedMemory(size_t size);
void releaseMemory(void* block);
void releaseMemoryEx(void* block, size_t size);
}

#endif
