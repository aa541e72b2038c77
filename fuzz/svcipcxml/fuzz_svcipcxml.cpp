// Interface descriptions as a service may hand them over, byte for byte. Whatever the reader
// accepts must come back out as a description it accepts again, with the same methods, each of
// which it then recognises: what Introspect serves is built from that output.
#include "SvcIpcDescription.h"

#include <cstddef>
#include <cstdint>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size > (1u << 20))
        return 0;
    const std::string text(reinterpret_cast<const char*>(data), size);  // stops at a NUL, as C does
    svcipc::InterfaceDescription first;
    if (!svcipc::parseDescription(text.c_str(), first))
        return 0;
    svcipc::InterfaceDescription again;
    if (!svcipc::parseDescription(first.xml.c_str(), again) || again.xml != first.xml || again.methods != first.methods)
        __builtin_trap();
    for (const std::string& method : first.methods)
        if (!first.hasMethod(method.c_str()))
            __builtin_trap();
    return 0;
}
