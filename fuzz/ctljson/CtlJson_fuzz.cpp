// Any bytes as a reply of the service: the reader must not crash or recurse without bound, white
// space around a value must not change what it says, only a top-level "code" counts, and any text
// the writer puts in a member must read back as that member.
#include "CtlJson.h"

#include <cstdint>
#include <cstdlib>
#include <string>

using namespace cbradioctl;

namespace
{
void check(bool condition)
{
    if (!condition)
        std::abort();
}
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const std::string text(reinterpret_cast<const char*>(data), size);
    const ReplyCode code = replyCode(text);
    check(replyCode(" \n" + text + "\r\t") == code);
    if (code != ReplyCode::NotAnObject) {
        // A "code" below the top level says nothing (too deep a nesting is refused).
        const ReplyCode nested = replyCode("{\"x\":" + text + "}");
        check(nested == ReplyCode::None || nested == ReplyCode::NotAnObject);
    }

    check(replyCode(jsonStringObject("code", text)) == ReplyCode::Other);
    check(replyCode(jsonStringObject(text, "0")) == (text == "code" ? ReplyCode::Other : ReplyCode::None));
    return 0;
}
