// TraceProtocol: the bytes between a traced process and the trace server, seen from the server.
//
// A record (process to server) is: class u8, sub-code u8, body length u16, body length u32, body;
// all numbers little-endian. parseRecord decodes one record (one socket message) into a Record;
// describeRecord turns it into one readable line. A command (server to process) is: code u8,
// parameter u32, and for command 9 the data, whose length is the parameter; buildCommand and the
// small helpers below make them.
//
// Nothing here trusts its input: a short or inconsistent record gives false and an error text,
// never a read outside the buffer. Pure functions, usable from any thread.
#ifndef TRACEPROTOCOL_H
#define TRACEPROTOCOL_H

#include "JTTraceCommandCode.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace TraceProtocol
{
using Bytes = std::vector<uint8_t>;

enum RecordClass : uint8_t {
    REC_MESSAGE = 17,
    REC_PROGRESS = 18,
    REC_COUNT = 20,
    REC_PROCESS_INFO = 23,
    REC_SCOPE = 24,
    REC_CALLBACK = 26,
    REC_CALLBACK_PARAM = 27,
    REC_CALLBACK_RETVAL = 28,
    REC_CALL_RESULT = 30,
    REC_CALL_RETVAL = 31,
    REC_LOG = 38,
    REC_MESSAGE_EX = 40,
    REC_HANDLERS = 45
};

enum CountKind : uint8_t { COUNT_CALLBACKS = 5, COUNT_SCOPES = 6 };
enum ProgressKind : uint8_t { PROGRESS_START = 0, PROGRESS_STEP = 1 };
enum { CALLBACK_LAST = 255 };  // sub-code of the last callback of a list

// The command codes are the library's own (JTTraceCommandCode.h).
namespace Cmd = JTTraceCommandCode;

// Parameter value types of callbacks and their return values.
enum ValueType : uint8_t { TYPE_INT = 1, TYPE_STRING = 2, TYPE_ARRAY = 3 };

// One decoded record. Which fields are meaningful depends on the class (see parseRecord).
struct Record
{
    uint8_t recordClass = 0;
    uint8_t subCode = 0;
    bool hasTime = false;
    uint32_t timeMs = 0;
    uint32_t pid = 0;
    uint32_t tid = 0;
    uint32_t index = 0;  // scope index (17, 24, 40), callback index (26-28, 30)
    uint32_t value =
        0;  // count (18 start, 20), step (18), identifier (40), result (30), log value (38), scope count (23)
    uint16_t callId = 0;                             // 30, 31
    uint16_t row = 0;                                // 31
    uint8_t kernelEvent = 0, media = 0, filter = 0;  // 24
    uint8_t silent = 0;                              // 23
    uint8_t paramCount = 0, retvalCount = 0;         // 26
    bool hasText = false;
    std::string name;  // full scope name (24), process name (23), callback/param/retval name
    std::string text;  // message text (17, 40, 38), callback description (26)
    Bytes data;        // return value bytes (31)
    std::vector<std::pair<uint8_t, std::string>> handlers;  // 45: media bit and name
};

// Decodes one record. False (with *error set when given) for a record too short for its
// header or its class's fixed fields, or whose length fields disagree with its size. Unknown
// classes decode their header only and succeed.
bool parseRecord(const uint8_t* bytes, size_t size, Record& out, std::string* error = nullptr);

// "ERR", "-->", "<--", "WRN", "MSG" for the message kinds 2, 4, 8, 32, 64; "???" otherwise.
const char* kindPrefix(uint8_t kind);

// A text on one line: leading and trailing line breaks dropped, other control bytes escaped.
std::string printable(const std::string& text);

// How a line names things it only knows by number.
struct Names
{
    std::function<std::string(uint32_t)> scope;                             // scope index -> full name ("" if unknown)
    std::function<std::string(uint32_t)> callback;                          // callback index -> name
    std::function<uint8_t(uint32_t callIndex, uint8_t retval)> retvalType;  // 0 if unknown
};

// One readable line for a record of the given process (no line break at the end).
std::string describeRecord(const Record& record, const std::string& process, const Names& names);

// A command message. Data is only sent for Cmd::CALL_CALLBACK; its length becomes the parameter.
Bytes buildCommand(uint8_t code, uint32_t parameter, const Bytes& data = Bytes());

// Parameters of the scope commands: index/first in bits 0-15, value in bits 16-23, count in 24-31.
uint32_t scopeParam(uint16_t index, uint8_t value);
uint32_t rangeParam(uint16_t first, uint8_t count, uint8_t value);

// The data of a callback call: index u16, call id u16, default argument u32, entries.
class CallData
{
public:
    CallData(uint16_t callbackIndex, uint16_t callId, int32_t defaultArgument);
    void addInt(uint8_t param, uint16_t row, int32_t value);
    void addBytes(uint8_t param, uint16_t row, const Bytes& value);  // string or array
    const Bytes& bytes() const { return mBytes; }

private:
    Bytes mBytes;
};

void putU16(Bytes& out, uint16_t v);
void putU32(Bytes& out, uint32_t v);
}

#endif
