// CJTTraceCommand: one command from the trace server.
//
// Wire form and codes: JTTraceCommandCode.h. readFrom takes the code, then the parameter, then
// for command 9 keeps reading until the data is complete or a read yields nothing (a short
// command keeps what arrived). A short code or parameter makes the command 0 with parameter 0,
// which the executor reports as unknown.
//
// The typed accessors read and append little-endian values in the data part; a read past the
// data fails and leaves the value untouched. A value type; one thread at a time.
#ifndef CJTTRACECOMMAND_H
#define CJTTRACECOMMAND_H

#include "CJTByteStream.h"
#include "JTTraceCommandCode.h"

#include <cstdint>

class CJTTraceCommand
{
public:
    enum { HEADER_SIZE = JTTraceCommandCode::HEADER_SIZE };

    CJTTraceCommand();
    CJTTraceCommand(uint8_t code, uint32_t parameter);

    // False when the code or the parameter could not be read completely.
    bool readFrom(IJTIStream& in);

    // Copies code, parameter and data to buffer; only when size is exactly getBufferSize().
    bool toBuffer(void* buffer, uint32_t size) const;
    uint32_t getBufferSize() const { return HEADER_SIZE + mData.getSize(); }

    uint8_t getCode() const { return mCode; }
    uint32_t getParameter() const { return mParameter; }
    void setCode(uint8_t code) { mCode = code; }
    void setParameter(uint32_t parameter) { mParameter = parameter; }

    // The data part; reads start at its beginning (rewindData() starts them again).
    CJTByteStream& getData() { return mData; }
    const CJTByteStream& getData() const { return mData; }
    void rewindData() { mData.rewind(); }

    bool readData(uint8_t& value) { return mData.readUInt8(value); }
    bool readData(uint16_t& value) { return mData.readUInt16(value); }
    bool readData(uint32_t& value) { return mData.readUInt32(value); }
    // Moves the next length data bytes into out; false (nothing moved) when fewer are left.
    bool readData(CJTByteStream& out, uint32_t length);

    // Appending data of a command 9 keeps its parameter equal to the data length.
    void writeData(uint8_t value);
    void writeData(uint16_t value);
    void writeData(uint32_t value);
    void writeData(const CJTByteStream& bytes);

private:
    void dataWritten();

    uint8_t mCode;
    uint32_t mParameter;
    CJTByteStream mData;
};

#endif
