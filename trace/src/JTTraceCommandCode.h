// JTTraceCommandCode: the codes of the commands a trace server sends a traced process. The
// library executes them (CJTTraceHelper) and the trace server tool sends them, both from this
// one list. A command on the wire: code u8 | parameter u32 little-endian | data, where only
// CALL_CALLBACK carries data, its length being the parameter.
#ifndef JTTRACECOMMANDCODE_H
#define JTTRACECOMMANDCODE_H

#include <cstdint>

namespace JTTraceCommandCode
{
enum Code : uint8_t {
    PROCESS_INFO = 1,
    LIST_SCOPES = 2,
    SET_FILTER = 3,
    SILENT = 4,
    CALLBACK_COUNT = 7,
    LIST_CALLBACKS = 8,
    CALL_CALLBACK = 9,
    SET_FILTER_RANGE = 11,
    PERSISTENCE = 13,
    SET_MEDIA = 14,
    SET_MEDIA_RANGE = 15,
    LIST_HANDLERS = 16,
    RELOAD_PERSISTENCE = 17
};

enum { HEADER_SIZE = 5 };  // code and parameter
}

#endif
