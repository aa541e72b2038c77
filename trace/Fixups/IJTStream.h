// IJTStream: the byte stream interfaces of the trace framework.
//
// IJTIStream is the read side, IJTOStream the write side, IJTIOStream both. Implementations are
// in-memory byte streams (CJTByteStream) and streams over a device with a time-out. Sizes and
// counts are bytes; every operation returns how many bytes it moved, never throws, and a short
// count is how an implementation reports the end of its data, a time-out or an error.
//
// Positions: align() pads or skips to a multiple of the given alignment, measured from the start
// of the stream as reported by getReadPosition()/getWritePosition(). A stream that does not know
// its position reports 0, so align() does nothing there.
//
// Threads: a stream object is used by one thread at a time; callers lock if they share it.
#ifndef IJTSTREAM_H
#define IJTSTREAM_H

#include <cstdint>

class IJTIStream
{
public:
    virtual ~IJTIStream() {}

    // Reads up to size bytes into data; returns the number read (0 at the end or on error).
    virtual uint32_t doRead(void* data, uint32_t size) = 0;

    // Waits at most timeoutMs until at least one byte can be read; true when there is one.
    // The default is for streams whose data is always at hand.
    virtual bool waitToRead(uint32_t timeoutMs)
    {
        (void)timeoutMs;
        return true;
    }

    // Consumes up to size bytes without keeping them; returns the number consumed.
    virtual uint32_t readSkip(uint32_t size);

    // Consumes bytes up to the next multiple of alignment (0 and 1 mean no alignment); returns the
    // number consumed.
    virtual uint32_t align(uint32_t alignment);

    virtual uint32_t getReadPosition() const { return 0; }
};

class IJTOStream
{
public:
    virtual ~IJTOStream() {}

    // Writes size bytes from data; returns the number written (less than size on error).
    virtual uint32_t doWrite(const void* data, uint32_t size) = 0;

    // Waits at most timeoutMs until data can be written; true when it can.
    virtual bool waitToWrite(uint32_t timeoutMs)
    {
        (void)timeoutMs;
        return true;
    }

    // Hands buffered bytes on; true on success. In-memory streams have nothing to do.
    virtual bool flush() { return true; }

    // Writes size zero bytes; returns the number written.
    virtual uint32_t writeSkip(uint32_t size);

    // Writes zero bytes up to the next multiple of alignment; returns the number written.
    virtual uint32_t align(uint32_t alignment);

    virtual uint32_t getWritePosition() const { return 0; }
};

class IJTIOStream : public IJTIStream, public IJTOStream
{
public:
    ~IJTIOStream() override {}

    // Both bases have an align(); a stream used for both sides says which one it means.
    uint32_t alignRead(uint32_t alignment) { return IJTIStream::align(alignment); }
    uint32_t alignWrite(uint32_t alignment) { return IJTOStream::align(alignment); }
};

namespace JTStreamDetail
{
// Moves size bytes in chunks of at most chunkSize through move(chunk), which returns how many
// it moved; a short chunk ends it. Returns how many bytes moved.
template <class Move>
inline uint32_t inChunks(uint32_t size, uint32_t chunkSize, Move move)
{
    uint32_t done = 0;
    while (done < size) {
        uint32_t chunk = size - done < chunkSize ? size - done : chunkSize;
        uint32_t moved = move(chunk);
        done += moved;
        if (moved < chunk)
            break;
    }
    return done;
}

// The bytes from position to the next multiple of alignment; none for alignments below 2.
inline uint32_t alignmentGap(uint32_t position, uint32_t alignment)
{
    uint32_t rest = alignment < 2 ? 0 : position % alignment;
    return rest == 0 ? 0 : alignment - rest;
}
}

inline uint32_t IJTIStream::readSkip(uint32_t size)
{
    uint8_t scratch[64];
    return JTStreamDetail::inChunks(size, sizeof(scratch), [&](uint32_t n) { return doRead(scratch, n); });
}

inline uint32_t IJTIStream::align(uint32_t alignment)
{
    uint32_t gap = JTStreamDetail::alignmentGap(getReadPosition(), alignment);
    return gap == 0 ? 0 : readSkip(gap);
}

inline uint32_t IJTOStream::writeSkip(uint32_t size)
{
    static const uint8_t zeros[64] = {};
    return JTStreamDetail::inChunks(size, sizeof(zeros), [&](uint32_t n) { return doWrite(zeros, n); });
}

inline uint32_t IJTOStream::align(uint32_t alignment)
{
    uint32_t gap = JTStreamDetail::alignmentGap(getWritePosition(), alignment);
    return gap == 0 ? 0 : writeSkip(gap);
}

#endif
