// Parses the input as one record reaching tracesrv and turns it into its line.
#include "TraceProtocol.h"
#include "TraceSession.h"

#include <cstddef>
#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static TraceSession session("Fuzz");
    TraceProtocol::Record record;
    if (TraceProtocol::parseRecord(data, size, record))
        session.onRecord(record);
    return 0;
}
