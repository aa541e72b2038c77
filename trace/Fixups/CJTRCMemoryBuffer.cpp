#include "CJTRCMemoryBuffer.h"

#include "JTMemory.h"

#include <cstring>
#include <new>

static_assert(sizeof(CJTRCMemoryBuffer) % 8 == 0, "the bytes after the counters must stay 8-byte aligned");

CJTRCMemoryBuffer* CJTRCMemoryBuffer::create(uint32_t size)
{
    return create(nullptr, size);
}

CJTRCMemoryBuffer* CJTRCMemoryBuffer::create(const void* data, uint32_t size)
{
    void* block = JTMemory::allocChecked(sizeof(CJTRCMemoryBuffer) + static_cast<size_t>(size));
    CJTRCMemoryBuffer* buffer = new (block) CJTRCMemoryBuffer(size);
    if (data != nullptr && size != 0)
        std::memcpy(buffer->getBuffer(), data, size);
    else if (size != 0)
        std::memset(buffer->getBuffer(), 0, size);
    return buffer;
}

void CJTRCMemoryBuffer::addRef()
{
    mRefCount.fetch_add(1, std::memory_order_relaxed);
}

void CJTRCMemoryBuffer::removeRef()
{
    if (mRefCount.fetch_sub(1, std::memory_order_acq_rel) == 1) {
        this->~CJTRCMemoryBuffer();
        JTMemory::release(this);
    }
}

bool CJTRCMemoryBuffer::operator==(const CJTRCMemoryBuffer& other) const
{
    return this == &other || (mSize == other.mSize && std::memcmp(getBuffer(), other.getBuffer(), mSize) == 0);
}
