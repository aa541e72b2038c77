// CJTRCMemoryBuffer: a reference-counted block of bytes.
//
// One allocation (through JTMemory) holds the counters and the bytes that follow them. create()
// returns a buffer with a count of 1; addRef() and removeRef() change the count atomically and the
// last removeRef() frees the block, so a buffer may be shared by owners on different threads. The
// bytes themselves are not protected: an owner that writes must be the only owner (buffers built
// on this one copy before they write when the count is above 1).
//
// Errors: allocation goes through JTMemory::allocChecked, which ends the process when memory is
// exhausted, so create() does not fail.
#ifndef CJTRCMEMORYBUFFER_H
#define CJTRCMEMORYBUFFER_H

#include <atomic>
#include <cstdint>

class CJTRCMemoryBuffer
{
public:
    // A buffer of size bytes, all zero.
    static CJTRCMemoryBuffer* create(uint32_t size);
    // A buffer holding a copy of size bytes of data (zero bytes when data is null).
    static CJTRCMemoryBuffer* create(const void* data, uint32_t size);

    void addRef();
    void removeRef();
    uint32_t getRefCount() const { return mRefCount.load(std::memory_order_acquire); }

    uint8_t* getBuffer() { return reinterpret_cast<uint8_t*>(this + 1); }
    const uint8_t* getBuffer() const { return reinterpret_cast<const uint8_t*>(this + 1); }
    uint32_t getSize() const { return mSize; }

    // Same size and same bytes.
    bool operator==(const CJTRCMemoryBuffer& other) const;
    bool operator!=(const CJTRCMemoryBuffer& other) const { return !(*this == other); }

    CJTRCMemoryBuffer(const CJTRCMemoryBuffer&) = delete;
    CJTRCMemoryBuffer& operator=(const CJTRCMemoryBuffer&) = delete;

private:
    explicit CJTRCMemoryBuffer(uint32_t size) : mRefCount(1), mSize(size) {}
    ~CJTRCMemoryBuffer() = default;

    std::atomic<uint32_t> mRefCount;
    uint32_t mSize;
};

#endif
