#include "CJTBuffer.h"

#include "CJTRCMemoryBuffer.h"

#include <cstring>

CJTBuffer::CJTBuffer() : mBuffer(nullptr), mSize(0) {}

CJTBuffer::CJTBuffer(uint32_t size) : mBuffer(CJTRCMemoryBuffer::create(size)), mSize(size) {}

CJTBuffer::CJTBuffer(const void* data, uint32_t size) : mBuffer(CJTRCMemoryBuffer::create(data, size)), mSize(size) {}

CJTBuffer::CJTBuffer(const CJTBuffer& other) : mBuffer(other.mBuffer), mSize(other.mSize)
{
    if (mBuffer != nullptr)
        mBuffer->addRef();
}

CJTBuffer& CJTBuffer::operator=(const CJTBuffer& other)
{
    if (other.mBuffer != nullptr)
        other.mBuffer->addRef();
    if (mBuffer != nullptr)
        mBuffer->removeRef();
    mBuffer = other.mBuffer;
    mSize = other.mSize;
    return *this;
}

CJTBuffer::~CJTBuffer()
{
    if (mBuffer != nullptr)
        mBuffer->removeRef();
}

uint32_t CJTBuffer::getCapacity() const
{
    return mBuffer != nullptr ? mBuffer->getSize() : 0;
}

const uint8_t* CJTBuffer::getData() const
{
    return mBuffer != nullptr ? mBuffer->getBuffer() : nullptr;
}

bool CJTBuffer::isShared() const
{
    return mBuffer != nullptr && mBuffer->getRefCount() > 1;
}

uint8_t* CJTBuffer::getWritableData()
{
    makeUnique(mSize);
    return mBuffer != nullptr ? mBuffer->getBuffer() : nullptr;
}

void CJTBuffer::makeUnique(uint32_t capacity)
{
    if (mBuffer != nullptr && mBuffer->getRefCount() == 1 && capacity <= mBuffer->getSize())
        return;
    if (mBuffer == nullptr && capacity == 0)
        return;
    uint32_t current = getCapacity();
    if (capacity < current)
        capacity = current;
    CJTRCMemoryBuffer* fresh = CJTRCMemoryBuffer::create(capacity);
    if (mBuffer != nullptr) {
        std::memcpy(fresh->getBuffer(), mBuffer->getBuffer(), mSize);
        mBuffer->removeRef();
    }
    mBuffer = fresh;
}

void CJTBuffer::reserve(uint32_t capacity)
{
    if (capacity > getCapacity())
        makeUnique(capacity);
}

void CJTBuffer::resize(uint32_t size)
{
    if (size == mSize)
        return;
    makeUnique(size);
    if (size > mSize)
        std::memset(mBuffer->getBuffer() + mSize, 0, size - mSize);
    mSize = size;
}

uint32_t CJTBuffer::copyTo(void* dest, uint32_t size, uint32_t offset) const
{
    if (dest == nullptr || offset >= mSize)
        return 0;
    uint32_t count = mSize - offset < size ? mSize - offset : size;
    std::memcpy(dest, mBuffer->getBuffer() + offset, count);
    return count;
}

uint32_t CJTBuffer::copyFrom(const void* src, uint32_t size, uint32_t offset)
{
    if (src == nullptr || size == 0)
        return 0;
    uint64_t end = static_cast<uint64_t>(offset) + size;
    if (end > 0xFFFFFFFFull)
        return 0;
    // src may lie in our own block, which growing would free: hold it until the copy is done.
    CJTRCMemoryBuffer* keep = nullptr;
    const uint8_t* bytes = static_cast<const uint8_t*>(src);
    if (mBuffer != nullptr && bytes >= mBuffer->getBuffer() && bytes < mBuffer->getBuffer() + mBuffer->getSize()) {
        keep = mBuffer;
        keep->addRef();
    }
    if (end > mSize)
        resize(static_cast<uint32_t>(end));
    else
        makeUnique(mSize);
    std::memmove(mBuffer->getBuffer() + offset, src, size);
    if (keep != nullptr)
        keep->removeRef();
    return size;
}

bool CJTBuffer::operator==(const CJTBuffer& other) const
{
    return mSize == other.mSize && (mSize == 0 || std::memcmp(getData(), other.getData(), mSize) == 0);
}
