#include "CJTTraceCommand.h"

#include <cstring>

CJTTraceCommand::CJTTraceCommand() : mCode(0), mParameter(0) {}

CJTTraceCommand::CJTTraceCommand(uint8_t code, uint32_t parameter) : mCode(code), mParameter(parameter) {}

bool CJTTraceCommand::readFrom(IJTIStream& in)
{
    mData.clear();
    uint8_t code = 0;
    uint8_t p[4];
    if (in.doRead(&code, 1) != 1 || in.doRead(p, 4) != 4) {
        mCode = 0;
        mParameter = 0;
        return false;
    }
    mCode = code;
    mParameter = p[0] | p[1] << 8 | p[2] << 16 | static_cast<uint32_t>(p[3]) << 24;
    if (mCode == JTTraceCommandCode::CALL_CALLBACK) {
        // Only what actually arrives is kept, so a parameter claiming gigabytes costs nothing.
        uint8_t chunk[512];
        uint32_t wanted = mParameter;
        while (wanted > 0) {
            uint32_t n = in.doRead(chunk, wanted < sizeof chunk ? wanted : sizeof chunk);
            if (n == 0)
                break;
            mData.doWrite(chunk, n);
            wanted -= n;
        }
    }
    return true;
}

bool CJTTraceCommand::toBuffer(void* buffer, uint32_t size) const
{
    if (!buffer || size != getBufferSize())
        return false;
    uint8_t* out = static_cast<uint8_t*>(buffer);
    out[0] = mCode;
    for (int i = 0; i < 4; ++i)
        out[1 + i] = static_cast<uint8_t>(mParameter >> (8 * i));
    if (mData.getSize() > 0)
        std::memcpy(out + HEADER_SIZE, mData.getData(), mData.getSize());
    return true;
}

bool CJTTraceCommand::readData(CJTByteStream& out, uint32_t length)
{
    if (mData.getRemaining() < length)
        return false;
    return out.readFromIStream(mData, length) == length;
}

void CJTTraceCommand::dataWritten()
{
    if (mCode == JTTraceCommandCode::CALL_CALLBACK)
        mParameter = mData.getSize();
}

void CJTTraceCommand::writeData(uint8_t value)
{
    mData.writeUInt8(value);
    dataWritten();
}

void CJTTraceCommand::writeData(uint16_t value)
{
    mData.writeUInt16(value);
    dataWritten();
}

void CJTTraceCommand::writeData(uint32_t value)
{
    mData.writeUInt32(value);
    dataWritten();
}

void CJTTraceCommand::writeData(const CJTByteStream& bytes)
{
    if (bytes.getSize() > 0)
        mData.doWrite(bytes.getData(), bytes.getSize());
    dataWritten();
}
