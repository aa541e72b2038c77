// CJTBuffer: a resizable byte buffer over a CJTRCMemoryBuffer.
//
// The buffer has a size (the bytes in use) and a capacity (the size of the block underneath).
// Copies share the block; the first change through a copy gives it a block of its own, so copies
// never see each other's changes. Bytes added by resize() are zero.
//
// Errors: offsets and sizes outside the buffer are not errors but cut the operation short:
// copyTo() copies what is there and returns the count. Allocation failure ends the process
// (JTMemory::allocChecked). One object is used by one thread at a time.
#ifndef CJTBUFFER_H
#define CJTBUFFER_H

#include <cstdint>

class CJTRCMemoryBuffer;

class CJTBuffer
{
public:
    CJTBuffer();
    explicit CJTBuffer(uint32_t size);
    CJTBuffer(const void* data, uint32_t size);
    CJTBuffer(const CJTBuffer& other);
    CJTBuffer& operator=(const CJTBuffer& other);
    ~CJTBuffer();

    uint32_t getSize() const { return mSize; }
    uint32_t getCapacity() const;
    const uint8_t* getData() const;
    // True while a copy shares the block.
    bool isShared() const;
    // Writable bytes; gives the buffer a block of its own first.
    uint8_t* getWritableData();

    // Changes the size, keeping the bytes that remain and zeroing new ones.
    void resize(uint32_t size);
    // Makes room for capacity bytes without changing the size.
    void reserve(uint32_t capacity);

    // Copies up to size bytes starting at offset into dest; returns the number copied.
    uint32_t copyTo(void* dest, uint32_t size, uint32_t offset = 0) const;
    // Copies size bytes from src to offset, growing the buffer as needed; returns size.
    uint32_t copyFrom(const void* src, uint32_t size, uint32_t offset = 0);

    // Same size and same bytes in use.
    bool operator==(const CJTBuffer& other) const;
    bool operator!=(const CJTBuffer& other) const { return !(*this == other); }

private:
    // A block of this object's own with room for capacity bytes.
    void makeUnique(uint32_t capacity);

    CJTRCMemoryBuffer* mBuffer;
    uint32_t mSize;
};

#endif
