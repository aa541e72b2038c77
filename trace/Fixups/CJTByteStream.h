// CJTByteStream: a growing in-memory byte stream with separate read and write positions.
//
// Writes append at the write position (the size of the stream) and grow the CJTBuffer underneath
// (doubling its capacity, at least 64 bytes); reads take bytes from the read position up to the
// size. Multi-byte values
// are little-endian (least significant byte first). The stream carries the bodies of trace
// records and the persistence block.
//
// Copies share the block and copy both positions; the first write through a copy gives it a block
// of its own, so a copy never sees the other's later writes.
//
// Errors: a read past the written data returns what there is (readUInt* return false and leave
// the value untouched when the whole value is not there); writes fail only when the stream would
// exceed 4 GiB. Allocation failure ends the process (JTMemory::allocChecked). One object is used
// by one thread at a time.
#ifndef CJTBYTESTREAM_H
#define CJTBYTESTREAM_H

#include "CJTBuffer.h"
#include "IJTStream.h"

#include <cstdint>

class CJTString;

class CJTByteStream : public IJTIOStream
{
public:
    CJTByteStream();
    // An empty stream with room for capacity bytes.
    explicit CJTByteStream(uint32_t capacity);
    // A stream holding a copy of size bytes of data, read position at the start.
    CJTByteStream(const void* data, uint32_t size);
    CJTByteStream(const CJTByteStream& other);
    CJTByteStream& operator=(const CJTByteStream& other) = default;
    ~CJTByteStream() override = default;

    uint32_t doRead(void* data, uint32_t size) override;
    uint32_t doWrite(const void* data, uint32_t size) override;
    uint32_t getReadPosition() const override { return mReadPos; }
    uint32_t getWritePosition() const override { return getSize(); }

    bool writeUInt8(uint8_t value);
    bool writeUInt16(uint16_t value);
    bool writeUInt32(uint32_t value);
    bool readUInt8(uint8_t& value);
    bool readUInt16(uint16_t& value);
    bool readUInt32(uint32_t& value);

    // Makes room for capacity bytes in all; the contents stay as they are.
    void reserve(uint32_t capacity);
    // Appends up to size bytes read from in, stopping early when a read yields nothing; returns
    // the number appended.
    uint32_t readFromIStream(IJTIStream& in, uint32_t size);

    // The written bytes (null for a stream that never had a block) and their number.
    const uint8_t* getData() const;
    uint32_t getSize() const { return mBuffer.getSize(); }
    uint32_t getCapacity() const { return mBuffer.getCapacity(); }
    // Bytes not read yet.
    uint32_t getRemaining() const { return getSize() - mReadPos; }

    // Empties the stream (both positions to 0), keeping its block when it is not shared.
    void clear();
    // Reads again from the start (or from pos, clamped to the size).
    void rewind(uint32_t pos = 0) { mReadPos = pos < getSize() ? pos : getSize(); }

    // Replaces out with the written bytes as upper-case hex pairs ("%.2X" each), no separators.
    void dump(CJTString& out) const;

    // Same written bytes; positions and capacity do not count.
    bool operator==(const CJTByteStream& other) const;
    bool operator!=(const CJTByteStream& other) const { return !(*this == other); }

private:
    // Grows the capacity for size more bytes; false when the stream would exceed 4 GiB.
    bool prepareWrite(uint32_t size);

    CJTBuffer mBuffer;
    uint32_t mReadPos;
};

#endif
