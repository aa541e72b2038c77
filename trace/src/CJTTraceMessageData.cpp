#include "CJTTraceMessageData.h"

#include <cstring>

uint32_t CJTTraceMessageData::CJTBodyStream::writeString(const char* text, uint32_t maximum, uint32_t fixed)
{
    if (!text)
        return 0;
    uint32_t length = static_cast<uint32_t>(std::strlen(text));
    if (maximum != 0 && length > maximum - 1)
        length = maximum - 1;
    doWrite(text, length);
    if (fixed != 0 && fixed > length)
        writeSkip(fixed - length);
    else
        writeUInt8(0);
    return length;
}

CJTTraceMessageData::CJTTraceMessageData(uint8_t recordClass, uint8_t subCode)
    : mClass(recordClass), mSubCode(subCode), mLength(0), mValid(true)
{
}

CJTTraceMessageData::CJTTraceMessageData(const void* raw, uint32_t size)
    : mClass(0), mSubCode(0), mLength(0), mValid(false)
{
    if (!raw || size < HEADER_SIZE)
        return;
    const uint8_t* p = static_cast<const uint8_t*>(raw);
    uint32_t bodyLength = p[4] | p[5] << 8 | p[6] << 16 | static_cast<uint32_t>(p[7]) << 24;
    if (bodyLength > size - HEADER_SIZE)
        return;
    mClass = p[0];
    mSubCode = p[1];
    mLength = static_cast<uint16_t>(p[2] | p[3] << 8);
    mBody.doWrite(p + HEADER_SIZE, bodyLength);
    mValid = true;
}

bool CJTTraceMessageData::readFrom(IJTIStream& in)
{
    uint8_t header[HEADER_SIZE];
    mBody.clear();
    mValid = false;
    if (in.doRead(header, HEADER_SIZE) != HEADER_SIZE)
        return false;
    uint32_t bodyLength = header[4] | header[5] << 8 | header[6] << 16 | static_cast<uint32_t>(header[7]) << 24;
    if (mBody.readFromIStream(in, bodyLength) != bodyLength) {
        mBody.clear();
        return false;
    }
    mClass = header[0];
    mSubCode = header[1];
    mLength = static_cast<uint16_t>(header[2] | header[3] << 8);
    mValid = true;
    return true;
}

void CJTTraceMessageData::serialize(CJTByteStream& out) const
{
    out.writeUInt8(mClass);
    out.writeUInt8(mSubCode);
    out.writeUInt16(mLength);
    out.writeUInt32(mBody.getSize());
    if (mBody.getSize() > 0)
        out.doWrite(mBody.getData(), mBody.getSize());
}

CJTTraceMessageData CJTTraceMessageData::makeTraceMessage(uint8_t kind, uint32_t timeMs, uint32_t pid, uint32_t tid,
                                                          uint16_t scopeIndex, const char* text)
{
    CJTTraceMessageData m(CLASS_TRACE_MESSAGE, kind);
    CJTBodyStream& b = m.body();
    b.writeUInt32(timeMs);
    b.writeUInt32(pid);
    b.writeUInt32(tid);
    b.writeUInt16(0);
    b.writeUInt16(scopeIndex);
    b.writeString(text ? text : "", MAX_MESSAGE_TEXT);
    m.complete();
    return m;
}

CJTTraceMessageData CJTTraceMessageData::makeTraceMessageEx(uint8_t kind, uint32_t timeMs, uint32_t pid, uint32_t tid,
                                                            uint16_t scopeIndex, uint32_t identifier, const char* text)
{
    CJTTraceMessageData m(CLASS_TRACE_MESSAGE_EX, kind);
    CJTBodyStream& b = m.body();
    b.writeUInt32(timeMs);
    b.writeUInt32(pid);
    b.writeUInt32(tid);
    b.writeUInt16(0);
    b.writeUInt16(scopeIndex);
    b.writeUInt32(identifier);
    b.writeString(text, MAX_MESSAGE_TEXT);
    m.complete();
    return m;
}

CJTTraceMessageData CJTTraceMessageData::makeProgress(uint8_t step, uint32_t pid, uint32_t value)
{
    CJTTraceMessageData m(CLASS_PROGRESS, step);
    m.body().writeUInt32(pid);
    m.body().writeUInt32(value);
    m.body().writeUInt32(pid);
    m.complete();
    return m;
}

CJTTraceMessageData CJTTraceMessageData::makeCount(uint8_t what, uint32_t count, uint32_t pid)
{
    CJTTraceMessageData m(CLASS_COUNT, what);
    m.body().writeUInt32(count);
    m.body().writeUInt32(pid);
    m.complete();
    return m;
}

CJTTraceMessageData CJTTraceMessageData::makeProcessInfo(uint8_t settingsInStep, uint32_t pid, uint16_t scopeCount,
                                                         uint8_t silent, const char* processName)
{
    CJTTraceMessageData m(CLASS_PROCESS_INFO, settingsInStep);
    m.body().writeUInt32(pid);
    m.body().writeUInt16(scopeCount);
    m.body().writeUInt8(silent);
    m.body().writeString(processName ? processName : "", MAX_NAME_TEXT);
    m.complete();
    return m;
}

CJTTraceMessageData CJTTraceMessageData::makeScopeInfo(uint32_t pid, uint16_t index, uint8_t kernelEvent, uint8_t media,
                                                       uint8_t filter, const char* fullName)
{
    CJTTraceMessageData m(CLASS_SCOPE_INFO, 0);
    m.body().writeUInt32(pid);
    m.body().writeUInt16(index);
    m.body().writeUInt8(kernelEvent);
    m.body().writeUInt8(media);
    m.body().writeUInt8(filter);
    m.body().writeString(fullName ? fullName : "");
    m.complete();
    return m;
}

CJTTraceMessageData CJTTraceMessageData::makeLogMessage(uint8_t code, uint32_t timeMs, uint32_t pid, uint16_t value,
                                                        const char* text)
{
    CJTTraceMessageData m(CLASS_LOG_MESSAGE, code);
    m.body().writeUInt32(timeMs);
    m.body().writeUInt32(pid);
    m.body().writeUInt16(value);
    m.body().writeUInt8(1);
    m.body().writeUInt8(0);
    m.body().writeString(text, MAX_NAME_TEXT);
    m.complete();
    return m;
}

CJTTraceMessageData CJTTraceMessageData::makeHandlerList(uint32_t pid)
{
    CJTTraceMessageData m(CLASS_HANDLER_LIST, 0);
    m.body().writeUInt32(pid);
    m.complete();
    return m;
}

void CJTTraceMessageData::addHandler(uint8_t mediaBit, const char* name)
{
    mBody.writeUInt8(mediaBit);
    // The list as a whole stays within a message text; a name that would not fit is sent empty.
    uint32_t used = mBody.getSize();
    mBody.writeString(name ? name : "", used < MAX_MESSAGE_TEXT ? MAX_MESSAGE_TEXT - used : 1);
}
