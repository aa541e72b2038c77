// Arbitrary envars.sh contents through the line parser, cut into lines the way fgets() does with
// the daemon's 512-byte buffer. Whatever a line holds, a parsed name must be one of the three
// variables and the value must lie inside the line.
#include "CBRadioEnvars.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const size_t LINE = 512;
    size_t at = 0;
    while (at < size) {
        size_t length = 0;
        while (at + length < size && length < LINE - 1) {
            if (data[at + length++] == '\n')
                break;
        }
        char line[LINE];
        std::memcpy(line, data + at, length);
        line[length] = '\0';
        at += length;

        char* name = nullptr;
        char* value = nullptr;
        if (!CBRadioEnvars::parseLine(line, &name, &value))
            continue;
        const std::string n = name;
        if (n != "DBUS_SESSION_BUS_ADDRESS" && n != "DBUS_SESSION_BUS_PID" && n != "SVCIPC_DISPATCH_PRIORITY")
            std::abort();
        if (value < line || value > line + length || std::strlen(value) > length)
            std::abort();
    }
    return 0;
}
