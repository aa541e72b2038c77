// CJTTraceMessageData: one record from this process to the trace server.
//
// Wire form, little-endian:  class u8 | sub-code u8 | body length u16 | body length u32 | body.
// The body is written through CJTBodyStream; complete() copies the body size into the 16-bit
// length field, and serialize() writes the 32-bit length from the body's size. The make* builders
// produce every record the framework sends, byte for byte; callbacks have their own builders in
// CJTTraceCallback.h.
//
// A record can also be read back (raw bytes or a stream), which the tests and tools use.
// Objects are values; one object is used by one thread at a time.
#ifndef CJTTRACEMESSAGEDATA_H
#define CJTTRACEMESSAGEDATA_H

#include "CJTByteStream.h"

#include <cstdint>

class CJTTraceMessageData
{
public:
    enum {
        HEADER_SIZE = 8,
        CLASS_TRACE_MESSAGE = 17,
        CLASS_PROGRESS = 18,
        CLASS_COUNT = 20,
        CLASS_PROCESS_INFO = 23,
        CLASS_SCOPE_INFO = 24,
        CLASS_CALLBACK = 26,
        CLASS_CALLBACK_PARAM = 27,
        CLASS_CALLBACK_RETVAL = 28,
        CLASS_CALLBACK_RESULT = 30,
        CLASS_CALLBACK_RETURN = 31,
        CLASS_LOG_MESSAGE = 38,
        CLASS_TRACE_MESSAGE_EX = 40,
        CLASS_HANDLER_LIST = 45
    };
    enum { PROGRESS_START = 0, PROGRESS_STEP = 1 };
    enum { COUNT_CALLBACKS = 5, COUNT_SCOPES = 6 };
    // Longest texts on the wire, terminating zero included.
    enum { MAX_MESSAGE_TEXT = 400, MAX_NAME_TEXT = 40 };

    class CJTBodyStream : public CJTByteStream
    {
    public:
        // Writes text cut to maximum-1 bytes (maximum 0: uncut), then zero bytes up to fixed when
        // fixed is larger than the bytes written, else one zero byte. A null text writes nothing.
        // Returns the number of text bytes written (without the padding).
        uint32_t writeString(const char* text, uint32_t maximum = 0, uint32_t fixed = 0);
    };

    CJTTraceMessageData(uint8_t recordClass = 0, uint8_t subCode = 0);
    // From raw bytes: header, 32-bit length, body. A short or inconsistent buffer gives an empty
    // record of class 0 (isValid() false).
    CJTTraceMessageData(const void* raw, uint32_t size);

    // Reads header, length and body from a stream; false (record emptied) when it ends early.
    bool readFrom(IJTIStream& in);

    uint8_t getClass() const { return mClass; }
    uint8_t getSubCode() const { return mSubCode; }
    uint16_t getLength() const { return mLength; }
    bool isValid() const { return mValid; }
    void setSubCode(uint8_t subCode) { mSubCode = subCode; }
    void setLength(uint16_t length) { mLength = length; }

    CJTBodyStream& body() { return mBody; }
    const CJTBodyStream& body() const { return mBody; }

    // Sets the 16-bit length from the body written so far.
    void complete() { mLength = static_cast<uint16_t>(mBody.getSize()); }

    uint32_t getSerializedSize() const { return HEADER_SIZE + mBody.getSize(); }
    // Appends the record's bytes to out.
    void serialize(CJTByteStream& out) const;

    // --- the records of the trace framework (each complete()d) -----------------------------------
    // 17: a trace message; text cut to 399 bytes.
    static CJTTraceMessageData makeTraceMessage(uint8_t kind, uint32_t timeMs, uint32_t pid, uint32_t tid,
                                                uint16_t scopeIndex, const char* text);
    // 40: an extended trace message; the text only when given.
    static CJTTraceMessageData makeTraceMessageEx(uint8_t kind, uint32_t timeMs, uint32_t pid, uint32_t tid,
                                                  uint16_t scopeIndex, uint32_t identifier, const char* text);
    // 18: progress of a list (value: the count at PROGRESS_START, the index at a step).
    static CJTTraceMessageData makeProgress(uint8_t step, uint32_t pid, uint32_t value);
    // 20: the number of scopes or callbacks.
    static CJTTraceMessageData makeCount(uint8_t what, uint32_t count, uint32_t pid);
    // 23: process information; a null name is sent as an empty text.
    static CJTTraceMessageData makeProcessInfo(uint8_t settingsInStep, uint32_t pid, uint16_t scopeCount,
                                               uint8_t silent, const char* processName);
    // 24: one scope.
    static CJTTraceMessageData makeScopeInfo(uint32_t pid, uint16_t index, uint8_t kernelEvent, uint8_t media,
                                             uint8_t filter, const char* fullName);
    // 38: a log message; the text (at most 39 bytes) only when given.
    static CJTTraceMessageData makeLogMessage(uint8_t code, uint32_t timeMs, uint32_t pid, uint16_t value,
                                              const char* text);
    // 45: start of the handler list; add each handler with addHandler, then complete().
    static CJTTraceMessageData makeHandlerList(uint32_t pid);
    void addHandler(uint8_t mediaBit, const char* name);

private:
    uint8_t mClass;
    uint8_t mSubCode;
    uint16_t mLength;
    bool mValid;
    CJTBodyStream mBody;
};

#endif
