// CJTString: a reference-counted UTF-8 string with copy on write.
//
// A string is one pointer to a shared block: reference count (changed atomically), capacity in
// bytes, length in bytes, number of characters, then the bytes and a terminating zero. A block
// is allocated through JTMemory as capacity + 20 bytes. The empty string points to the static
// CJTString::nullData, which is never counted or freed. Copying shares the block; every change
// first gives the string a block of its own, so a change to a copy never shows in the original.
//
// UTF-8: a lead byte gives the length of its sequence: 0x00-0x7F one byte, 0xC0-0xDF two,
// 0xE0-0xEF three, 0xF0-0xF7 four, 0xF8-0xFB five, 0xFC-0xFD six; 0x80-0xBF and 0xFE-0xFF do not
// start a sequence. A following byte is taken as a continuation when its top bit is set; this
// test is lenient on purpose (old five- and six-byte encodings pass). Every text that comes in
// (constructors, append, insert, replace, format, fromDSIStream) is checked: when it is not valid
// UTF-8 the string keeps the valid beginning, up to the first bad or cut-off sequence, and the
// system log gets "The character sequence contains a wrong coded UTF-8 sequence !" at severity 2.
// A zero byte ends a text, also in the forms that take a byte length.
//
// Positions and counts (insert, remove, replace, getLeft/getRight/getMid, findString) are in
// characters, not bytes; positions past the end are clamped to the end. truncate(bytes) is the
// one operation in bytes; it never cuts a character in two. Case-insensitive search folds ASCII
// letters only.
//
// Capacity overflow (a capacity so large that capacity + 20 does not fit in 32 bits) is an
// assertion, "CJTString::<operation>: Capacity %d not valid!", where <operation> is ctor (the
// constructors), addReference (growing by append or insert), trim, or replace (replace,
// replaceAll, replaceArg). When such an assertion was announced as expected and returns, the
// string is left unchanged (a constructor leaves it empty).
//
// Threads: different CJTString objects may be used from different threads even when they share
// a block; one object is used by one thread at a time.
#ifndef CJTSTRING_H
#define CJTSTRING_H

#include <atomic>
#include <cstdarg>
#include <cstddef>
#include <cstdint>

class IJTIStream;
class IJTOStream;

class CJTString
{
public:
    struct SData
    {
        std::atomic<uint32_t> refCount;
        uint32_t capacity;   // bytes of text the block can hold, without the terminating zero
        uint32_t length;     // bytes of text
        uint32_t charCount;  // code points
        char text[4];        // the first bytes; the text continues to the end of the block
    };

    // The block of every empty string; its count is never changed.
    static SData nullData;

    static const uint32_t npos = 0xFFFFFFFFu;
    // Block size beyond the capacity: the four counters and room for the terminating zero.
    static const uint32_t BLOCK_OVERHEAD = 20;

    // Walks code points; *it is the code point at the current position.
    class const_iterator
    {
    public:
        const_iterator() : mText(nullptr), mLength(0), mPos(0), mCharPos(0) {}
        uint32_t operator*() const;
        const_iterator& operator++();
        const_iterator operator++(int);
        bool operator==(const const_iterator& other) const { return mText == other.mText && mPos == other.mPos; }
        bool operator!=(const const_iterator& other) const { return !(*this == other); }
        uint32_t getBytePos() const { return mPos; }
        uint32_t getCharPos() const { return mCharPos; }
        // Bytes of the character at the current position (0 at the end).
        uint32_t getSequenceLength() const;

    private:
        friend class CJTString;
        const_iterator(const char* text, uint32_t length, uint32_t pos, uint32_t charPos)
            : mText(text), mLength(length), mPos(pos), mCharPos(charPos)
        {
        }
        const char* mText;
        uint32_t mLength;
        uint32_t mPos;
        uint32_t mCharPos;
    };

    CJTString();
    CJTString(const char* text);
    CJTString(const char* text, uint32_t byteLength);
    // An empty string with room for capacity bytes.
    explicit CJTString(uint32_t capacity);
    // From UCS-2, UCS-4 or wide characters; count npos means up to a terminating zero. A UCS-4
    // value above 0x7FFFFFFF cannot be encoded and is treated like a bad UTF-8 sequence.
    CJTString(const uint16_t* ucs2, uint32_t count = npos);
    CJTString(const uint32_t* ucs4, uint32_t count = npos);
    CJTString(const wchar_t* wide, uint32_t count = npos);
    CJTString(const CJTString& other);
    CJTString(CJTString&& other) noexcept;
    ~CJTString();

    CJTString& operator=(const CJTString& other);
    CJTString& operator=(CJTString&& other) noexcept;
    CJTString& operator=(const char* text);

    const char* c_str() const { return mData->text; }
    uint32_t getByteCount() const { return mData->length; }
    uint32_t getCharCount() const { return mData->charCount; }
    uint32_t getCapacity() const { return mData->capacity; }
    bool isEmpty() const { return mData->length == 0; }
    // 0 for the empty string's static block.
    uint32_t getRefCount() const;

    const_iterator begin() const { return const_iterator(mData->text, mData->length, 0, 0); }
    const_iterator end() const { return const_iterator(mData->text, mData->length, mData->length, mData->charCount); }

    CJTString& append(const CJTString& text);
    CJTString& append(const char* text);
    CJTString& append(const char* text, uint32_t byteLength);
    // Appends one code point (up to 0x7FFFFFFF); larger values are ignored.
    CJTString& appendChar(uint32_t codePoint);
    CJTString& operator+=(const CJTString& text) { return append(text); }
    CJTString& operator+=(const char* text) { return append(text); }

    CJTString& insert(uint32_t charPos, const CJTString& text);
    CJTString& remove(uint32_t charPos, uint32_t charCount = npos);
    CJTString& replace(uint32_t charPos, uint32_t charCount, const CJTString& text);
    // Replaces every occurrence of what (none when what is empty); returns how many.
    uint32_t replaceAll(const CJTString& what, const CJTString& with, bool ignoreCase = false);
    // Replaces every occurrence of the lowest-numbered marker "%1" .. "%9" by value, so chained
    // calls fill %1, %2, ... in turn; returns false when the string has no marker.
    bool replaceArg(const CJTString& value);

    // Keeps at most byteCount bytes, dropping a character that would be cut.
    CJTString& truncate(uint32_t byteCount);
    // Keeps everything before the iterator's position; an iterator of another string is ignored.
    CJTString& truncate(const const_iterator& at);
    // Shrinks the block to the length (capacity = length).
    CJTString& trim();
    // Makes room for capacity bytes in a block of this string's own.
    void reserve(uint32_t capacity);
    void clear();

    CJTString getLeft(uint32_t charCount) const;
    CJTString getRight(uint32_t charCount) const;
    CJTString getMid(uint32_t charPos, uint32_t charCount = npos) const;

    // Character position of the first occurrence at or after startChar, or -1.
    int32_t findString(const CJTString& what, uint32_t startChar = 0, bool ignoreCase = false) const;

    // printf formatting; the result replaces the contents.
    CJTString& format(const char* format, ...) __attribute__((format(printf, 2, 3)));
    CJTString& vformat(const char* format, va_list args);
    static CJTString strprintf(const char* format, ...) __attribute__((format(printf, 1, 2)));

    void swap(CJTString& other) noexcept;

    // Byte-wise comparison: <0, 0, >0.
    int compare(const CJTString& other) const;
    bool operator==(const CJTString& other) const;
    bool operator!=(const CJTString& other) const { return !(*this == other); }
    bool operator<(const CJTString& other) const { return compare(other) < 0; }
    bool operator==(const char* text) const;
    bool operator!=(const char* text) const { return !(*this == text); }

    // Stream form: the byte length including the terminating zero as 32-bit little-endian, then
    // the bytes and the zero. toDSIStream returns false on a short write; fromDSIStream returns
    // false (and leaves the string empty) on a short read or a length above 16 MiB.
    bool toDSIStream(IJTOStream& stream) const;
    bool fromDSIStream(IJTIStream& stream);

    // Sequence length given by a lead byte, 0 when it cannot start a sequence.
    static uint32_t getSequenceLength(uint8_t lead);
    // Length in bytes of the valid UTF-8 beginning of text (stopping at a zero byte too) and,
    // when chars is given, its number of characters.
    static uint32_t scanUTF8(const char* text, uint32_t byteLength, uint32_t* chars = nullptr);
    // Code point of the sequence at text (length from its lead byte); the caller checked it.
    static uint32_t decode(const char* text, uint32_t sequenceLength);
    // Writes the UTF-8 form of codePoint into out (6 bytes of room); returns its length, 0 when
    // it cannot be encoded.
    static uint32_t encode(uint32_t codePoint, char* out);

private:
    // A fresh block with a count of 1; null (after the capacity assertion) when capacity + 20
    // does not fit in 32 bits.
    static SData* allocate(uint64_t capacity, const char* operation);
    static void release(SData* data);
    // Gives this string a block of its own with room for capacity bytes; false when the capacity
    // is not valid (asserted under the operation's name).
    bool makeUnique(uint64_t capacity, const char* operation);
    // Sets the contents to the valid beginning of text, logging when something was dropped.
    void assign(const char* text, uint32_t byteLength, const char* operation);
    // Replaces the bytes [bytePos, bytePos + byteCount) by already checked text.
    bool replaceBytes(uint32_t bytePos, uint32_t byteCount, const char* text, uint32_t textLength, uint32_t textChars,
                      const char* operation);
    uint32_t byteOffset(uint32_t charPos) const;
    // Takes over a block built outside (format, fromDSIStream), releasing the current one.
    void adopt(SData* data);

    SData* mData;
};

inline void swap(CJTString& a, CJTString& b) noexcept
{
    a.swap(b);
}

#endif
