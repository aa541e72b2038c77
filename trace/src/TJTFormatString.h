// TJTFormatString<N>: printf formatting into a fixed buffer of N bytes that lives where the object
// lives (normally the stack). Never allocates; over-long results are cut to N-1 characters and stay
// zero-terminated. The trace framework uses 400 bytes for messages, 256 for its own short texts
// and 512 for full scope names.
//
// Errors: a formatting error (negative result of vsnprintf) leaves an empty text.
// Thread safety: an object is used by one thread at a time.
#ifndef TJTFORMATSTRING_H
#define TJTFORMATSTRING_H

#include <cstdarg>
#include <cstddef>
#include <cstdio>

template <size_t N>
class TJTFormatString
{
    static_assert(N > 1, "a format buffer needs room for at least one character");

public:
    TJTFormatString() : mLength(0) { mBuffer[0] = '\0'; }

    TJTFormatString(const char* format, ...) __attribute__((format(printf, 2, 3))) : mLength(0)
    {
        mBuffer[0] = '\0';
        va_list args;
        va_start(args, format);
        vappend(format, args);
        va_end(args);
    }

    // Replaces the text; returns the formatter's count (the length it wanted, may exceed N-1).
    int format(const char* format, ...) __attribute__((format(printf, 2, 3)))
    {
        va_list args;
        va_start(args, format);
        int n = vformat(format, args);
        va_end(args);
        return n;
    }

    int vformat(const char* format, va_list args)
    {
        mLength = 0;
        mBuffer[0] = '\0';
        return vappend(format, args);
    }

    // Appends to the text; returns the formatter's count for the appended part.
    int append(const char* format, ...) __attribute__((format(printf, 2, 3)))
    {
        va_list args;
        va_start(args, format);
        int n = vappend(format, args);
        va_end(args);
        return n;
    }

    int vappend(const char* format, va_list args)
    {
        size_t room = N - mLength;
        int n = vsnprintf(mBuffer + mLength, room, format ? format : "", args);
        if (n < 0) {
            mBuffer[mLength] = '\0';
            return n;
        }
        mLength += (static_cast<size_t>(n) < room) ? static_cast<size_t>(n) : room - 1;
        return n;
    }

    const char* c_str() const { return mBuffer; }
    operator const char*() const { return mBuffer; }
    size_t length() const { return mLength; }
    static constexpr size_t capacity() { return N; }

private:
    char mBuffer[N];
    size_t mLength;
};

#endif
