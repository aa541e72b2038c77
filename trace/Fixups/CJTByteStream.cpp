#include "CJTByteStream.h"

#include "CJTString.h"

#include <cstring>

namespace
{
const uint32_t MIN_CAPACITY = 64;
}

CJTByteStream::CJTByteStream() : mBuffer(), mReadPos(0) {}

CJTByteStream::CJTByteStream(uint32_t capacity) : mBuffer(), mReadPos(0)
{
    reserve(capacity);
}

CJTByteStream::CJTByteStream(const void* data, uint32_t size) : mBuffer(), mReadPos(0)
{
    doWrite(data, size);
}

CJTByteStream::CJTByteStream(const CJTByteStream& other)
    : IJTIOStream(), mBuffer(other.mBuffer), mReadPos(other.mReadPos)
{
}

const uint8_t* CJTByteStream::getData() const
{
    return mBuffer.getData();
}

void CJTByteStream::reserve(uint32_t capacity)
{
    mBuffer.reserve(capacity);
}

bool CJTByteStream::prepareWrite(uint32_t size)
{
    const uint64_t needed = static_cast<uint64_t>(getSize()) + size;
    if (needed > 0xFFFFFFFFull)
        return false;
    uint64_t capacity = getCapacity();
    if (needed <= capacity)
        return true;
    // Doubling keeps a stream written value by value linear in its size.
    capacity = capacity * 2 > needed ? capacity * 2 : needed;
    if (capacity < MIN_CAPACITY)
        capacity = MIN_CAPACITY;
    if (capacity > 0xFFFFFFFFull)
        capacity = needed;
    mBuffer.reserve(static_cast<uint32_t>(capacity));
    return true;
}

uint32_t CJTByteStream::doWrite(const void* data, uint32_t size)
{
    if (data == nullptr || size == 0)
        return 0;
    // data may lie in our own block, which growing frees: a copy of the buffer holds the block
    // until the bytes are in (it only costs a copy of the block when data lies in it).
    const uint8_t* bytes = static_cast<const uint8_t*>(data);
    const uint8_t* own = getData();
    CJTBuffer keep;
    if (own != nullptr && bytes >= own && bytes < own + getCapacity())
        keep = mBuffer;
    if (!prepareWrite(size))
        return 0;
    return mBuffer.copyFrom(data, size, getSize());
}

uint32_t CJTByteStream::doRead(void* data, uint32_t size)
{
    if (data == nullptr)
        return 0;
    uint32_t count = getRemaining() < size ? getRemaining() : size;
    if (count != 0)
        std::memcpy(data, getData() + mReadPos, count);
    mReadPos += count;
    return count;
}

bool CJTByteStream::writeUInt8(uint8_t value)
{
    return doWrite(&value, 1) == 1;
}

bool CJTByteStream::writeUInt16(uint16_t value)
{
    const uint8_t bytes[2] = {static_cast<uint8_t>(value), static_cast<uint8_t>(value >> 8)};
    return doWrite(bytes, 2) == 2;
}

bool CJTByteStream::writeUInt32(uint32_t value)
{
    const uint8_t bytes[4] = {static_cast<uint8_t>(value), static_cast<uint8_t>(value >> 8),
                              static_cast<uint8_t>(value >> 16), static_cast<uint8_t>(value >> 24)};
    return doWrite(bytes, 4) == 4;
}

bool CJTByteStream::readUInt8(uint8_t& value)
{
    if (getRemaining() < 1)
        return false;
    doRead(&value, 1);
    return true;
}

bool CJTByteStream::readUInt16(uint16_t& value)
{
    uint8_t bytes[2] = {0, 0};
    if (getRemaining() < 2)
        return false;
    doRead(bytes, 2);
    value = static_cast<uint16_t>(bytes[0] | (bytes[1] << 8));
    return true;
}

bool CJTByteStream::readUInt32(uint32_t& value)
{
    uint8_t bytes[4] = {0, 0, 0, 0};
    if (getRemaining() < 4)
        return false;
    doRead(bytes, 4);
    value = bytes[0] | (bytes[1] << 8) | (bytes[2] << 16) | (static_cast<uint32_t>(bytes[3]) << 24);
    return true;
}

uint32_t CJTByteStream::readFromIStream(IJTIStream& in, uint32_t size)
{
    if (static_cast<uint64_t>(getSize()) + size > 0xFFFFFFFFull)
        size = 0xFFFFFFFFu - getSize();
    uint32_t total = 0;
    while (total < size) {
        // Grow in steps, so a large request from a short stream does not reserve it all at once.
        uint32_t chunk = size - total < 4096 ? size - total : 4096;
        if (!prepareWrite(chunk))
            break;
        const uint32_t before = getSize();
        mBuffer.resize(before + chunk);
        uint32_t got = in.doRead(mBuffer.getWritableData() + before, chunk);
        if (got > chunk)  // a source that claims more than it was asked for is not believed
            got = chunk;
        mBuffer.resize(before + got);
        total += got;
        if (got == 0)
            break;
    }
    return total;
}

void CJTByteStream::clear()
{
    // A block shared with a copy is left to the copy; one of our own is kept for reuse.
    if (mBuffer.isShared())
        mBuffer = CJTBuffer();
    else
        mBuffer.resize(0);
    mReadPos = 0;
}

void CJTByteStream::dump(CJTString& out) const
{
    static const char digits[] = "0123456789ABCDEF";
    const uint32_t size = getSize();
    CJTString text(size * 2 > size ? size * 2 : 0);
    char pair[3] = {0, 0, 0};
    const uint8_t* bytes = getData();
    for (uint32_t i = 0; i < size; ++i) {
        pair[0] = digits[bytes[i] >> 4];
        pair[1] = digits[bytes[i] & 0x0F];
        text.append(pair, 2);
    }
    out.swap(text);
}

bool CJTByteStream::operator==(const CJTByteStream& other) const
{
    return mBuffer == other.mBuffer;
}
