// Arbitrary bytes as string text and as a streamed string: the string must keep a valid
// beginning of the input, count its characters right, and walk them without reading past its end.
#include "CJTByteStream.h"
#include "CJTString.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>

namespace
{
void check(bool condition)
{
    if (!condition)
        std::abort();
}

void walk(const CJTString& s)
{
    uint32_t chars = 0;
    uint32_t lastPos = 0;
    for (CJTString::const_iterator it = s.begin(); it != s.end(); ++it) {
        check(it.getSequenceLength() != 0);
        check(it.getBytePos() + it.getSequenceLength() <= s.getByteCount());
        char bytes[6];
        uint32_t len = CJTString::encode(*it, bytes);
        check(len != 0 || *it == 0);
        lastPos = it.getBytePos();
        ++chars;
    }
    check(chars == s.getCharCount());
    check(s.getByteCount() == 0 || lastPos < s.getByteCount());
    check(std::strlen(s.c_str()) == s.getByteCount());
}
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const char* text = reinterpret_cast<const char*>(data);
    const uint32_t length = size > 4096 ? 4096 : static_cast<uint32_t>(size);

    CJTString s(text, length);
    check(s.getByteCount() <= length);
    check(s.getByteCount() == 0 || std::memcmp(s.c_str(), text, s.getByteCount()) == 0);
    check(CJTString::scanUTF8(s.c_str(), s.getByteCount()) == s.getByteCount());
    walk(s);

    // Edits on a copy must leave the original as it was.
    CJTString copy(s);
    copy.append(text, length);
    copy.insert(s.getCharCount() / 2, s);
    copy.truncate(length);
    walk(copy);
    check(s == CJTString(text, length));

    CJTByteStream stream(data, length);
    CJTString streamed;
    if (streamed.fromDSIStream(stream))
        walk(streamed);
    return 0;
}
