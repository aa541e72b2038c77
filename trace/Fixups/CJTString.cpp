#include "CJTString.h"

#include "IJTStream.h"
#include "JTAssert.h"
#include "JTMemory.h"
#include "JTSyslog.h"

#include <cstdio>
#include <cstring>
#include <new>

CJTString::SData CJTString::nullData = {{0}, 0, 0, 0, {0, 0, 0, 0}};

namespace
{
const uint64_t MAX_CAPACITY = 0xFFFFFFFFull - CJTString::BLOCK_OVERHEAD;
const uint32_t MAX_STREAM_LENGTH = 16u * 1024u * 1024u;

void logBadSequence()
{
    JTSyslog::logMsg(0, JTSyslog::SEV_ERROR, "The character sequence contains a wrong coded UTF-8 sequence !");
}

char foldCase(char c)
{
    return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c;
}

bool bytesEqual(const char* a, const char* b, uint32_t n, bool ignoreCase)
{
    if (!ignoreCase)
        return std::memcmp(a, b, n) == 0;
    for (uint32_t i = 0; i < n; ++i)
        if (foldCase(a[i]) != foldCase(b[i]))
            return false;
    return true;
}

// Characters of an already checked text.
uint32_t countChars(const char* text, uint32_t length)
{
    uint32_t chars = 0;
    CJTString::scanUTF8(text, length, &chars);
    return chars;
}

// UCS-2, UCS-4 and wide characters share one path: each unit is one code point.
template <class T>
void assignUnits(CJTString& out, const T* units, uint32_t count)
{
    out.clear();
    if (units == nullptr)
        return;
    uint32_t n = 0;
    while (n < count && units[n] != 0)
        ++n;
    out.reserve(n);
    for (uint32_t i = 0; i < n; ++i) {
        uint32_t codePoint = static_cast<uint32_t>(units[i]);
        if (codePoint > 0x7FFFFFFFu) {
            logBadSequence();
            return;
        }
        out.appendChar(codePoint);
    }
}
}

// ---- code points -----------------------------------------------------------------------------

uint32_t CJTString::getSequenceLength(uint8_t lead)
{
    // Lead bytes by range; continuation bytes (80..BF) and FE, FF start no sequence.
    static const struct
    {
        uint8_t below;
        uint8_t length;
    } kLeads[] = {{0x80, 1}, {0xC0, 0}, {0xE0, 2}, {0xF0, 3}, {0xF8, 4}, {0xFC, 5}, {0xFE, 6}};
    for (const auto& range : kLeads)
        if (lead < range.below)
            return range.length;
    return 0;
}

uint32_t CJTString::scanUTF8(const char* text, uint32_t byteLength, uint32_t* chars)
{
    uint32_t pos = 0;
    uint32_t count = 0;
    if (text != nullptr) {
        while (pos < byteLength) {
            uint8_t lead = static_cast<uint8_t>(text[pos]);
            if (lead == 0)
                break;
            uint32_t len = getSequenceLength(lead);
            if (len == 0 || len > byteLength - pos)
                break;
            uint32_t k = 1;
            while (k < len && (static_cast<uint8_t>(text[pos + k]) & 0x80) != 0)
                ++k;
            if (k < len)
                break;
            pos += len;
            ++count;
        }
    }
    if (chars != nullptr)
        *chars = count;
    return pos;
}

uint32_t CJTString::decode(const char* text, uint32_t sequenceLength)
{
    uint8_t lead = static_cast<uint8_t>(text[0]);
    if (sequenceLength <= 1)
        return lead;
    uint32_t codePoint = lead & ((1u << (7 - sequenceLength)) - 1);
    for (uint32_t k = 1; k < sequenceLength; ++k)
        codePoint = (codePoint << 6) | (static_cast<uint8_t>(text[k]) & 0x3F);
    return codePoint;
}

uint32_t CJTString::encode(uint32_t codePoint, char* out)
{
    uint32_t len;
    uint8_t leadBits;
    if (codePoint < 0x80) {
        out[0] = static_cast<char>(codePoint);
        return 1;
    } else if (codePoint < 0x800) {
        len = 2, leadBits = 0xC0;
    } else if (codePoint < 0x10000) {
        len = 3, leadBits = 0xE0;
    } else if (codePoint < 0x200000) {
        len = 4, leadBits = 0xF0;
    } else if (codePoint < 0x4000000) {
        len = 5, leadBits = 0xF8;
    } else if (codePoint <= 0x7FFFFFFF) {
        len = 6, leadBits = 0xFC;
    } else {
        return 0;
    }
    for (uint32_t k = len - 1; k > 0; --k) {
        out[k] = static_cast<char>(0x80 | (codePoint & 0x3F));
        codePoint >>= 6;
    }
    out[0] = static_cast<char>(leadBits | codePoint);
    return len;
}

uint32_t CJTString::const_iterator::getSequenceLength() const
{
    if (mText == nullptr || mPos >= mLength)
        return 0;
    return CJTString::getSequenceLength(static_cast<uint8_t>(mText[mPos]));
}

uint32_t CJTString::const_iterator::operator*() const
{
    uint32_t len = getSequenceLength();
    return len == 0 ? 0 : CJTString::decode(mText + mPos, len);
}

CJTString::const_iterator& CJTString::const_iterator::operator++()
{
    uint32_t len = getSequenceLength();
    if (len != 0) {
        mPos += len;
        ++mCharPos;
    }
    return *this;
}

CJTString::const_iterator CJTString::const_iterator::operator++(int)
{
    const_iterator before = *this;
    ++*this;
    return before;
}

// ---- blocks ----------------------------------------------------------------------------------

CJTString::SData* CJTString::allocate(uint64_t capacity, const char* operation)
{
    if (capacity > MAX_CAPACITY) {
        char text[128];
        std::snprintf(text, sizeof(text), "%s: Capacity %d not valid!", operation,
                      static_cast<int>(static_cast<uint32_t>(capacity)));
        doAssert(__LINE__, __FILE__, text);
        return nullptr;
    }
    void* block = JTMemory::allocChecked(static_cast<size_t>(capacity) + BLOCK_OVERHEAD);
    if (block == nullptr)
        return nullptr;
    SData* data = new (block) SData;
    data->refCount.store(1, std::memory_order_relaxed);
    data->capacity = static_cast<uint32_t>(capacity);
    data->length = 0;
    data->charCount = 0;
    data->text[0] = 0;
    return data;
}

void CJTString::release(SData* data)
{
    if (data == &nullData)
        return;
    if (data->refCount.fetch_sub(1, std::memory_order_acq_rel) == 1) {
        data->~SData();
        JTMemory::release(data);
    }
}

void CJTString::adopt(SData* data)
{
    SData* old = mData;
    mData = data != nullptr ? data : &nullData;
    release(old);
}

uint32_t CJTString::getRefCount() const
{
    return mData == &nullData ? 0 : mData->refCount.load(std::memory_order_acquire);
}

bool CJTString::makeUnique(uint64_t capacity, const char* operation)
{
    if (mData != &nullData && capacity <= mData->capacity && mData->refCount.load(std::memory_order_acquire) == 1)
        return true;
    if (capacity < mData->length)
        capacity = mData->length;
    SData* fresh = allocate(capacity, operation);
    if (fresh == nullptr)
        return false;
    std::memcpy(fresh->text, mData->text, mData->length + 1);
    fresh->length = mData->length;
    fresh->charCount = mData->charCount;
    adopt(fresh);
    return true;
}

bool CJTString::replaceBytes(uint32_t bytePos, uint32_t byteCount, const char* text, uint32_t textLength,
                             uint32_t textChars, const char* operation)
{
    // The text may live in our own block; then a second reference keeps that block alive (and
    // unchanged) while we build a new one.
    CJTString keep;
    if (mData != &nullData && text >= mData->text && text <= mData->text + mData->capacity)
        keep = *this;
    const uint32_t oldLength = mData->length;
    const uint32_t removedChars = countChars(mData->text + bytePos, byteCount);
    const uint64_t required = static_cast<uint64_t>(oldLength) - byteCount + textLength;
    uint64_t capacity = required;
    if (required > mData->capacity && required <= MAX_CAPACITY) {
        uint64_t grown = static_cast<uint64_t>(mData->capacity) + mData->capacity / 2;
        if (grown > required)
            capacity = grown > MAX_CAPACITY ? MAX_CAPACITY : grown;
    } else if (required <= mData->capacity) {
        capacity = mData->capacity;
    }
    if (!makeUnique(capacity, operation))
        return false;
    char* bytes = mData->text;
    const uint32_t tail = oldLength - bytePos - byteCount;
    std::memmove(bytes + bytePos + textLength, bytes + bytePos + byteCount, tail);
    if (textLength != 0)
        std::memcpy(bytes + bytePos, text, textLength);
    mData->length = static_cast<uint32_t>(required);
    bytes[mData->length] = 0;
    mData->charCount = mData->charCount - removedChars + textChars;
    return true;
}

void CJTString::assign(const char* text, uint32_t byteLength, const char* operation)
{
    uint32_t chars = 0;
    uint32_t valid = scanUTF8(text, byteLength, &chars);
    if (valid < byteLength && text[valid] != 0)
        logBadSequence();
    if (valid == 0) {
        adopt(nullptr);
        return;
    }
    SData* fresh = allocate(valid, operation);
    if (fresh == nullptr)
        return;
    std::memcpy(fresh->text, text, valid);
    fresh->text[valid] = 0;
    fresh->length = valid;
    fresh->charCount = chars;
    adopt(fresh);
}

uint32_t CJTString::byteOffset(uint32_t charPos) const
{
    if (charPos >= mData->charCount)
        return mData->length;
    if (mData->charCount == mData->length)
        return charPos;
    const_iterator it = begin();
    while (it.getCharPos() < charPos)
        ++it;
    return it.getBytePos();
}

// ---- construction ----------------------------------------------------------------------------

CJTString::CJTString() : mData(&nullData) {}

CJTString::CJTString(const char* text) : mData(&nullData)
{
    if (text != nullptr)
        assign(text, static_cast<uint32_t>(strnlen(text, 0xFFFFFFFFu)), "CJTString::ctor");
}

CJTString::CJTString(const char* text, uint32_t byteLength) : mData(&nullData)
{
    if (text != nullptr)
        assign(text, byteLength, "CJTString::ctor");
}

CJTString::CJTString(uint32_t capacity) : mData(&nullData)
{
    if (capacity != 0)
        adopt(allocate(capacity, "CJTString::ctor"));
}

CJTString::CJTString(const uint16_t* ucs2, uint32_t count) : mData(&nullData)
{
    assignUnits(*this, ucs2, count);
}

CJTString::CJTString(const uint32_t* ucs4, uint32_t count) : mData(&nullData)
{
    assignUnits(*this, ucs4, count);
}

CJTString::CJTString(const wchar_t* wide, uint32_t count) : mData(&nullData)
{
    assignUnits(*this, wide, count);
}

CJTString::CJTString(const CJTString& other) : mData(other.mData)
{
    if (mData != &nullData)
        mData->refCount.fetch_add(1, std::memory_order_relaxed);
}

CJTString::CJTString(CJTString&& other) noexcept : mData(other.mData)
{
    other.mData = &nullData;
}

CJTString::~CJTString()
{
    release(mData);
}

CJTString& CJTString::operator=(const CJTString& other)
{
    if (other.mData != mData) {
        if (other.mData != &nullData)
            other.mData->refCount.fetch_add(1, std::memory_order_relaxed);
        adopt(other.mData);
    }
    return *this;
}

CJTString& CJTString::operator=(CJTString&& other) noexcept
{
    swap(other);
    return *this;
}

CJTString& CJTString::operator=(const char* text)
{
    if (text == nullptr) {
        clear();
        return *this;
    }
    CJTString keep(*this);  // text may point into our own block
    assign(text, static_cast<uint32_t>(strnlen(text, 0xFFFFFFFFu)), "CJTString::ctor");
    return *this;
}

void CJTString::swap(CJTString& other) noexcept
{
    SData* mine = mData;
    mData = other.mData;
    other.mData = mine;
}

void CJTString::clear()
{
    adopt(nullptr);
}

void CJTString::reserve(uint32_t capacity)
{
    makeUnique(capacity, "CJTString::addReference");
}

// ---- changes ---------------------------------------------------------------------------------

CJTString& CJTString::append(const CJTString& text)
{
    if (mData == &nullData) {
        *this = text;
        return *this;
    }
    if (!text.isEmpty())
        replaceBytes(mData->length, 0, text.c_str(), text.getByteCount(), text.getCharCount(),
                     "CJTString::addReference");
    return *this;
}

CJTString& CJTString::append(const char* text)
{
    return text == nullptr ? *this : append(text, static_cast<uint32_t>(strnlen(text, 0xFFFFFFFFu)));
}

CJTString& CJTString::append(const char* text, uint32_t byteLength)
{
    if (text == nullptr)
        return *this;
    uint32_t chars = 0;
    uint32_t valid = scanUTF8(text, byteLength, &chars);
    if (valid < byteLength && text[valid] != 0)
        logBadSequence();
    if (valid != 0)
        replaceBytes(mData->length, 0, text, valid, chars, "CJTString::addReference");
    return *this;
}

CJTString& CJTString::appendChar(uint32_t codePoint)
{
    char bytes[6];
    uint32_t len = codePoint == 0 ? 0 : encode(codePoint, bytes);
    if (len != 0)
        replaceBytes(mData->length, 0, bytes, len, 1, "CJTString::addReference");
    return *this;
}

CJTString& CJTString::insert(uint32_t charPos, const CJTString& text)
{
    if (!text.isEmpty())
        replaceBytes(byteOffset(charPos), 0, text.c_str(), text.getByteCount(), text.getCharCount(),
                     "CJTString::addReference");
    return *this;
}

CJTString& CJTString::remove(uint32_t charPos, uint32_t charCount)
{
    uint32_t first = byteOffset(charPos);
    uint32_t last = charCount >= mData->charCount ? mData->length : byteOffset(charPos + charCount);
    if (charPos + charCount < charPos)  // overflow: up to the end
        last = mData->length;
    if (last > first)
        replaceBytes(first, last - first, "", 0, 0, "CJTString::replace");
    return *this;
}

CJTString& CJTString::replace(uint32_t charPos, uint32_t charCount, const CJTString& text)
{
    uint32_t first = byteOffset(charPos);
    uint32_t last = (charCount >= mData->charCount || charPos + charCount < charPos) ? mData->length
                                                                                     : byteOffset(charPos + charCount);
    if (last > first || !text.isEmpty())
        replaceBytes(first, last - first, text.c_str(), text.getByteCount(), text.getCharCount(), "CJTString::replace");
    return *this;
}

uint32_t CJTString::replaceAll(const CJTString& what, const CJTString& with, bool ignoreCase)
{
    if (what.isEmpty() || what.getByteCount() > mData->length)
        return 0;
    const char* text = mData->text;
    const uint32_t length = mData->length;
    const uint32_t whatLength = what.getByteCount();

    // First pass: where the matches are, and how long the result gets.
    uint32_t matches = 0;
    for (uint32_t pos = 0; pos + whatLength <= length;) {
        if (bytesEqual(text + pos, what.c_str(), whatLength, ignoreCase)) {
            ++matches;
            pos += whatLength;
        } else {
            pos += getSequenceLength(static_cast<uint8_t>(text[pos]));
        }
    }
    if (matches == 0)
        return 0;
    const uint64_t newLength = static_cast<uint64_t>(length) + static_cast<uint64_t>(matches) * with.getByteCount() -
                               static_cast<uint64_t>(matches) * whatLength;
    SData* fresh = allocate(newLength, "CJTString::replace");
    if (fresh == nullptr)
        return 0;

    char* out = fresh->text;
    for (uint32_t pos = 0; pos < length;) {
        if (pos + whatLength <= length && bytesEqual(text + pos, what.c_str(), whatLength, ignoreCase)) {
            std::memcpy(out, with.c_str(), with.getByteCount());
            out += with.getByteCount();
            pos += whatLength;
        } else {
            uint32_t len = getSequenceLength(static_cast<uint8_t>(text[pos]));
            std::memcpy(out, text + pos, len);
            out += len;
            pos += len;
        }
    }
    fresh->length = static_cast<uint32_t>(newLength);
    fresh->text[fresh->length] = 0;
    fresh->charCount = mData->charCount + matches * with.getCharCount() - matches * what.getCharCount();
    adopt(fresh);
    return matches;
}

bool CJTString::replaceArg(const CJTString& value)
{
    char lowest = 0;
    const char* text = mData->text;
    for (uint32_t pos = 0; pos + 1 < mData->length; ++pos) {
        char digit = text[pos + 1];
        if (text[pos] == '%' && digit >= '1' && digit <= '9' && (lowest == 0 || digit < lowest))
            lowest = digit;
    }
    if (lowest == 0)
        return false;
    const char marker[3] = {'%', lowest, 0};
    return replaceAll(CJTString(marker), value) != 0;
}

CJTString& CJTString::truncate(uint32_t byteCount)
{
    if (byteCount >= mData->length)
        return *this;
    const_iterator it = begin();
    while (it.getBytePos() + it.getSequenceLength() <= byteCount)
        ++it;
    return truncate(it);
}

CJTString& CJTString::truncate(const const_iterator& at)
{
    if (at.mText != mData->text || at.mPos >= mData->length)
        return *this;
    replaceBytes(at.mPos, mData->length - at.mPos, "", 0, 0, "CJTString::replace");
    return *this;
}

CJTString& CJTString::trim()
{
    if (mData == &nullData || mData->capacity == mData->length)
        return *this;
    if (mData->length == 0) {
        adopt(nullptr);
        return *this;
    }
    SData* fresh = allocate(mData->length, "CJTString::trim");
    if (fresh == nullptr)
        return *this;
    std::memcpy(fresh->text, mData->text, mData->length + 1);
    fresh->length = mData->length;
    fresh->charCount = mData->charCount;
    adopt(fresh);
    return *this;
}

// ---- parts and search ------------------------------------------------------------------------

CJTString CJTString::getMid(uint32_t charPos, uint32_t charCount) const
{
    uint32_t first = byteOffset(charPos);
    uint32_t last = (charCount >= mData->charCount || charPos + charCount < charPos) ? mData->length
                                                                                     : byteOffset(charPos + charCount);
    if (first == 0 && last == mData->length)
        return *this;
    return CJTString(mData->text + first, last - first);
}

CJTString CJTString::getLeft(uint32_t charCount) const
{
    return getMid(0, charCount);
}

CJTString CJTString::getRight(uint32_t charCount) const
{
    return charCount >= mData->charCount ? *this : getMid(mData->charCount - charCount);
}

int32_t CJTString::findString(const CJTString& what, uint32_t startChar, bool ignoreCase) const
{
    if (startChar > mData->charCount)
        return -1;
    const uint32_t whatLength = what.getByteCount();
    const char* text = mData->text;
    uint32_t charPos = startChar;
    for (uint32_t pos = byteOffset(startChar); pos + whatLength <= mData->length; ++charPos) {
        if (bytesEqual(text + pos, what.c_str(), whatLength, ignoreCase))
            return static_cast<int32_t>(charPos);
        if (pos == mData->length)
            break;
        pos += getSequenceLength(static_cast<uint8_t>(text[pos]));
    }
    return -1;
}

// ---- formatting ------------------------------------------------------------------------------

CJTString& CJTString::vformat(const char* format, va_list args)
{
    if (format == nullptr) {
        clear();
        return *this;
    }
    va_list probe;
    va_copy(probe, args);
    int needed = std::vsnprintf(nullptr, 0, format, probe);
    va_end(probe);
    if (needed <= 0) {
        clear();
        return *this;
    }
    SData* fresh = allocate(static_cast<uint32_t>(needed), "CJTString::ctor");
    if (fresh == nullptr)
        return *this;
    std::vsnprintf(fresh->text, static_cast<size_t>(needed) + 1, format, args);
    uint32_t chars = 0;
    uint32_t valid = scanUTF8(fresh->text, static_cast<uint32_t>(needed), &chars);
    if (valid < static_cast<uint32_t>(needed) && fresh->text[valid] != 0)
        logBadSequence();
    fresh->text[valid] = 0;
    fresh->length = valid;
    fresh->charCount = chars;
    adopt(fresh);
    return *this;
}

CJTString& CJTString::format(const char* format, ...)
{
    va_list args;
    va_start(args, format);
    vformat(format, args);
    va_end(args);
    return *this;
}

CJTString CJTString::strprintf(const char* format, ...)
{
    CJTString result;
    va_list args;
    va_start(args, format);
    result.vformat(format, args);
    va_end(args);
    return result;
}

// ---- comparison ------------------------------------------------------------------------------

int CJTString::compare(const CJTString& other) const
{
    uint32_t common = mData->length < other.mData->length ? mData->length : other.mData->length;
    int order = std::memcmp(mData->text, other.mData->text, common);
    if (order != 0)
        return order;
    return mData->length < other.mData->length ? -1 : (mData->length > other.mData->length ? 1 : 0);
}

bool CJTString::operator==(const CJTString& other) const
{
    return mData == other.mData ||
           (mData->length == other.mData->length && std::memcmp(mData->text, other.mData->text, mData->length) == 0);
}

bool CJTString::operator==(const char* text) const
{
    return text == nullptr ? isEmpty() : std::strcmp(mData->text, text) == 0;
}

// ---- streams ---------------------------------------------------------------------------------

bool CJTString::toDSIStream(IJTOStream& stream) const
{
    const uint32_t size = mData->length + 1;
    const uint8_t header[4] = {static_cast<uint8_t>(size), static_cast<uint8_t>(size >> 8),
                               static_cast<uint8_t>(size >> 16), static_cast<uint8_t>(size >> 24)};
    return stream.doWrite(header, 4) == 4 && stream.doWrite(mData->text, size) == size;
}

bool CJTString::fromDSIStream(IJTIStream& stream)
{
    clear();
    uint8_t header[4];
    if (stream.doRead(header, 4) != 4)
        return false;
    const uint32_t size = header[0] | (header[1] << 8) | (header[2] << 16) | (static_cast<uint32_t>(header[3]) << 24);
    if (size == 0)
        return true;
    if (size > MAX_STREAM_LENGTH)
        return false;
    SData* fresh = allocate(size, "CJTString::ctor");
    if (fresh == nullptr)
        return false;
    if (stream.doRead(fresh->text, size) != size) {
        release(fresh);
        return false;
    }
    fresh->text[size] = 0;
    uint32_t chars = 0;
    uint32_t valid = scanUTF8(fresh->text, size, &chars);
    if (valid < size && fresh->text[valid] != 0)
        logBadSequence();
    fresh->text[valid] = 0;
    fresh->length = valid;
    fresh->charCount = chars;
    adopt(fresh);
    return true;
}
