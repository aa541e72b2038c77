#include "TraceProtocol.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>

namespace TraceProtocol
{
namespace
{
// Reads little-endian fields front to back; any read past the end marks the reader failed and
// yields zeros, so decoders check ok() once at the end instead of after every field.
class Reader
{
public:
    Reader(const uint8_t* p, size_t n) : mP(p), mN(n) {}
    bool ok() const { return mOk; }
    size_t left() const { return mN - mPos; }
    size_t pos() const { return mPos; }

    uint32_t take(size_t width)
    {
        if (left() < width) {
            mOk = false;
            mPos = mN;
            return 0;
        }
        uint32_t v = 0;
        for (size_t i = 0; i < width; ++i)
            v |= static_cast<uint32_t>(mP[mPos + i]) << (8 * i);
        mPos += width;
        return v;
    }
    uint8_t u8() { return static_cast<uint8_t>(take(1)); }
    uint16_t u16() { return static_cast<uint16_t>(take(2)); }
    uint32_t u32() { return take(4); }

    // A zero-terminated text; a missing terminator ends the text at the end of the body.
    std::string text()
    {
        const void* end = std::memchr(mP + mPos, 0, left());
        size_t len = end ? static_cast<size_t>(static_cast<const uint8_t*>(end) - (mP + mPos)) : left();
        std::string s(reinterpret_cast<const char*>(mP + mPos), len);
        mPos += end ? len + 1 : len;
        return s;
    }
    // A text written into a zero-padded field of at least `width` bytes.
    std::string paddedText(size_t width)
    {
        size_t start = mPos;
        std::string s = text();
        if (mPos - start < width)
            mPos = (start + width <= mN) ? start + width : mN;
        return s;
    }
    Bytes rest()
    {
        Bytes b(mP + mPos, mP + mN);
        mPos = mN;
        return b;
    }

private:
    const uint8_t* mP;
    size_t mN;
    size_t mPos = 0;
    bool mOk = true;
};

// One decoder per record class: the fixed fields, then the variable tail. Reads past the end
// yield zeros and empty texts, so each decoder checks the reader once, at its end.
bool decodeMessage(Record& r, Reader& in)
{
    r.hasTime = true;
    r.timeMs = in.u32();
    r.pid = in.u32();
    r.tid = in.u32();
    in.u16();
    r.index = in.u16();
    if (r.recordClass == REC_MESSAGE_EX)
        r.value = in.u32();
    r.hasText = in.left() > 0 || r.recordClass == REC_MESSAGE;
    r.text = in.text();
    return in.ok();
}

bool decodeProgress(Record& r, Reader& in)
{
    r.pid = in.u32();
    r.value = in.u32();
    in.u32();
    return in.ok();
}

bool decodeCount(Record& r, Reader& in)
{
    r.value = in.u32();
    r.pid = in.u32();
    return in.ok();
}

bool decodeProcessInfo(Record& r, Reader& in)
{
    r.pid = in.u32();
    r.value = in.u16();
    r.silent = in.u8();
    r.name = in.text();
    return in.ok();
}

bool decodeScope(Record& r, Reader& in)
{
    r.pid = in.u32();
    r.index = in.u16();
    r.kernelEvent = in.u8();
    r.media = in.u8();
    r.filter = in.u8();
    r.name = in.text();
    return in.ok();
}

bool decodeCallback(Record& r, Reader& in)
{
    r.pid = in.u32();
    r.index = in.u16();
    r.paramCount = in.u8();
    r.retvalCount = in.u8();
    in.u16();
    r.name = in.paddedText(40);
    r.text = in.text();
    return in.ok();
}

bool decodeCallbackEntry(Record& r, Reader& in)  // a parameter or a return value
{
    r.pid = in.u32();
    r.index = in.u16();
    r.name = in.text();
    return in.ok();
}

bool decodeCallResult(Record& r, Reader& in)
{
    r.pid = in.u32();
    r.index = in.u32();
    r.callId = in.u16();
    in.u16();
    r.value = in.u32();
    return in.ok();
}

bool decodeCallRetval(Record& r, Reader& in)
{
    r.row = in.u16();
    r.callId = in.u16();
    r.data = in.rest();
    return in.ok();
}

bool decodeLog(Record& r, Reader& in)
{
    r.hasTime = true;
    r.timeMs = in.u32();
    r.pid = in.u32();
    r.value = in.u16();
    in.u8();
    in.u8();
    r.hasText = in.left() > 0;
    r.text = in.text();
    return in.ok();
}

bool decodeHandlers(Record& r, Reader& in)
{
    r.pid = in.u32();
    while (in.left() > 0) {
        uint8_t bit = in.u8();
        r.handlers.emplace_back(bit, in.text());
    }
    return in.ok();
}

bool decodeUnknown(Record& r, Reader& in)
{
    r.data = in.rest();
    return true;
}

struct BodyDecoder
{
    uint8_t recordClass;
    bool (*decode)(Record&, Reader&);
};
const BodyDecoder kDecoders[] = {
    {REC_MESSAGE, decodeMessage},
    {REC_MESSAGE_EX, decodeMessage},
    {REC_PROGRESS, decodeProgress},
    {REC_COUNT, decodeCount},
    {REC_PROCESS_INFO, decodeProcessInfo},
    {REC_SCOPE, decodeScope},
    {REC_CALLBACK, decodeCallback},
    {REC_CALLBACK_PARAM, decodeCallbackEntry},
    {REC_CALLBACK_RETVAL, decodeCallbackEntry},
    {REC_CALL_RESULT, decodeCallResult},
    {REC_CALL_RETVAL, decodeCallRetval},
    {REC_LOG, decodeLog},
    {REC_HANDLERS, decodeHandlers},
};

bool decodeBody(Record& r, Reader& in)
{
    for (const BodyDecoder& d : kDecoders)
        if (d.recordClass == r.recordClass)
            return d.decode(r, in);
    return decodeUnknown(r, in);
}

std::string hex(const Bytes& b)
{
    std::string s;
    char buf[4];
    for (size_t i = 0; i < b.size(); ++i) {
        std::snprintf(buf, sizeof buf, i ? " %02X" : "%02X", b[i]);
        s += buf;
    }
    return s;
}

std::string format(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
std::string format(const char* fmt, ...)
{
    char buf[512];
    va_list ap;
    va_start(ap, fmt);
    std::vsnprintf(buf, sizeof buf, fmt, ap);
    va_end(ap);
    return buf;
}

const char* typeName(uint8_t type)
{
    switch (type) {
    case TYPE_INT:
        return "int";
    case TYPE_STRING:
        return "string";
    case TYPE_ARRAY:
        return "array";
    default:
        return "type?";
    }
}

std::string timeText(uint32_t ms)
{
    return format("%u.%03u", ms / 1000, ms % 1000);
}

std::string scopeText(const Names& names, uint32_t index)
{
    std::string n = names.scope ? names.scope(index) : std::string();
    return n.empty() ? format("#%u", index) : n;
}

const char* logMeaning(uint32_t value)
{
    switch (value) {
    case 256:
        return " (settings stored)";
    case 257:
        return " (settings loaded)";
    case 258:
        return " (settings killed)";
    case 259:
        return " (loading settings failed)";
    default:
        return "";
    }
}

std::string retvalText(const Record& r, uint8_t type)
{
    if ((type == TYPE_INT || type == 0) && r.data.size() == 4) {
        uint32_t v = r.data[0] | r.data[1] << 8 | r.data[2] << 16 | static_cast<uint32_t>(r.data[3]) << 24;
        return format("%d", static_cast<int32_t>(v));
    }
    bool isText = !r.data.empty() && r.data.back() == 0 && type != TYPE_ARRAY;
    for (size_t i = 0; isText && i + 1 < r.data.size(); ++i)
        isText = r.data[i] >= 0x20 || r.data[i] == '\n' || r.data[i] == '\t';
    if (isText)
        return "\"" + printable(std::string(r.data.begin(), r.data.end() - 1)) + "\"";
    return "[" + hex(r.data) + "]";
}
}

bool parseRecord(const uint8_t* bytes, size_t size, Record& out, std::string* error)
{
    out = Record();
    auto fail = [error](const std::string& why) {
        if (error)
            *error = why;
        return false;
    };
    if (!bytes || size < 8)
        return fail(format("record of %zu bytes is shorter than its header", size));
    out.recordClass = bytes[0];
    out.subCode = bytes[1];
    uint32_t len16 = bytes[2] | bytes[3] << 8;
    uint32_t len32 = bytes[4] | bytes[5] << 8 | bytes[6] << 16 | static_cast<uint32_t>(bytes[7]) << 24;
    if (len32 != size - 8)
        return fail(format("class %u record says %u body bytes but carries %zu", out.recordClass, len32, size - 8));
    if (len16 != (len32 & 0xFFFF))
        return fail(format("class %u record has body lengths %u and %u", out.recordClass, len16, len32));
    Reader in(bytes + 8, len32);
    if (!decodeBody(out, in))
        return fail(format("class %u record body of %u bytes is too short", out.recordClass, len32));
    return true;
}

const char* kindPrefix(uint8_t kind)
{
    switch (kind) {
    case 2:
        return "ERR";
    case 4:
        return "-->";
    case 8:
        return "<--";
    case 32:
        return "WRN";
    case 64:
        return "MSG";
    default:
        return "???";
    }
}

std::string printable(const std::string& text)
{
    size_t b = 0, e = text.size();
    while (b < e && (text[b] == '\n' || text[b] == '\r'))
        ++b;
    while (e > b && (text[e - 1] == '\n' || text[e - 1] == '\r'))
        --e;
    std::string s;
    for (size_t i = b; i < e; ++i) {
        unsigned char c = static_cast<unsigned char>(text[i]);
        if (c == '\n')
            s += "\\n";
        else if (c == '\t')
            s += "\\t";
        else if (c < 0x20 || c == 0x7F)
            s += format("\\x%02X", c);
        else
            s += static_cast<char>(c);
    }
    return s;
}

namespace
{
// One line per record class; p is the process name.
std::string messageHead(const Record& r, const char* p)
{
    return format("%s %s %u %s ", timeText(r.timeMs).c_str(), p, r.tid, kindPrefix(r.subCode));
}

std::string describeMessage(const Record& r, const char* p, const Names& names)
{
    std::string scope = scopeText(names, r.index);
    // Entry and exit carry the scope's own name as text: show it once.
    if ((r.subCode == 4 || r.subCode == 8) && r.text == scope)
        return messageHead(r, p) + scope;
    return messageHead(r, p) + scope + ": " + printable(r.text);
}

std::string describeMessageEx(const Record& r, const char* p, const Names& names)
{
    return messageHead(r, p) + scopeText(names, r.index) + format(": [id 0x%08X] ", r.value) + printable(r.text);
}

std::string describeProgress(const Record& r, const char* p, const Names&)
{
    return r.subCode == PROGRESS_START ? format("%s progress start %u", p, r.value)
                                       : format("%s progress %u", p, r.value);
}

std::string describeCount(const Record& r, const char* p, const Names&)
{
    if (r.subCode == COUNT_SCOPES)
        return format("%s scope count %u", p, r.value);
    if (r.subCode == COUNT_CALLBACKS)
        return format("%s callback count %u", p, r.value);
    return format("%s count %u (kind %u)", p, r.value, r.subCode);
}

std::string describeProcessInfo(const Record& r, const char* p, const Names&)
{
    return format("%s info: pid %u, name \"", p, r.pid) + printable(r.name) +
           format("\", %u scopes, silent %s, settings %s", r.value, r.silent ? "on" : "off",
                  r.subCode ? "as stored" : "changed since stored");
}

std::string describeScope(const Record& r, const char* p, const Names&)
{
    return format("%s scope %u ", p, r.index) + printable(r.name) +
           format(" filter 0x%02X media 0x%02X event %u", r.filter, r.media, r.kernelEvent);
}

std::string describeCallback(const Record& r, const char* p, const Names&)
{
    return format("%s callback %u ", p, r.index) + printable(r.name) +
           format(" (%u params, %u return values)%s: ", r.paramCount, r.retvalCount,
                  r.subCode == CALLBACK_LAST ? " last" : "") +
           printable(r.text);
}

std::string describeCallbackEntry(const Record& r, const char* p, const Names&)
{
    return format("%s callback %u %s %s \"", p, r.index, r.recordClass == REC_CALLBACK_PARAM ? "param" : "return value",
                  typeName(r.subCode)) +
           printable(r.name) + "\"";
}

std::string describeCallResult(const Record& r, const char* p, const Names& names)
{
    std::string name = names.callback ? names.callback(r.index) : std::string();
    return format("%s call %u: callback %u%s%s returned %d", p, r.callId, r.index, name.empty() ? "" : " ",
                  name.c_str(), static_cast<int32_t>(r.value));
}

std::string describeCallRetval(const Record& r, const char* p, const Names& names)
{
    uint8_t type = names.retvalType ? names.retvalType(r.callId, r.subCode) : 0;
    return format("%s call %u: return value %u row %u = ", p, r.callId, r.subCode, r.row) + retvalText(r, type);
}

std::string describeLog(const Record& r, const char* p, const Names&)
{
    return format("%s %s log %u/%u%s", timeText(r.timeMs).c_str(), p, r.subCode, r.value, logMeaning(r.value)) +
           (r.hasText ? ": " + printable(r.text) : std::string());
}

std::string describeHandlers(const Record& r, const char* p, const Names&)
{
    std::string s = format("%s handlers:", p);
    for (size_t i = 0; i < r.handlers.size(); ++i)
        s += format("%s %u ", i ? "," : "", r.handlers[i].first) + printable(r.handlers[i].second);
    return s;
}

struct LineWriter
{
    uint8_t recordClass;
    std::string (*describe)(const Record&, const char*, const Names&);
};
const LineWriter kLineWriters[] = {
    {REC_MESSAGE, describeMessage},
    {REC_MESSAGE_EX, describeMessageEx},
    {REC_PROGRESS, describeProgress},
    {REC_COUNT, describeCount},
    {REC_PROCESS_INFO, describeProcessInfo},
    {REC_SCOPE, describeScope},
    {REC_CALLBACK, describeCallback},
    {REC_CALLBACK_PARAM, describeCallbackEntry},
    {REC_CALLBACK_RETVAL, describeCallbackEntry},
    {REC_CALL_RESULT, describeCallResult},
    {REC_CALL_RETVAL, describeCallRetval},
    {REC_LOG, describeLog},
    {REC_HANDLERS, describeHandlers},
};
}

std::string describeRecord(const Record& r, const std::string& process, const Names& names)
{
    for (const LineWriter& w : kLineWriters)
        if (w.recordClass == r.recordClass)
            return w.describe(r, process.c_str(), names);
    return format("%s record class %u sub-code %u: [", process.c_str(), r.recordClass, r.subCode) + hex(r.data) + "]";
}

void putU16(Bytes& out, uint16_t v)
{
    out.push_back(static_cast<uint8_t>(v));
    out.push_back(static_cast<uint8_t>(v >> 8));
}

void putU32(Bytes& out, uint32_t v)
{
    for (int i = 0; i < 4; ++i)
        out.push_back(static_cast<uint8_t>(v >> (8 * i)));
}

Bytes buildCommand(uint8_t code, uint32_t parameter, const Bytes& data)
{
    Bytes out;
    out.push_back(code);
    if (code == Cmd::CALL_CALLBACK) {
        putU32(out, static_cast<uint32_t>(data.size()));
        out.insert(out.end(), data.begin(), data.end());
    } else
        putU32(out, parameter);
    return out;
}

uint32_t scopeParam(uint16_t index, uint8_t value)
{
    return index | static_cast<uint32_t>(value) << 16;
}

uint32_t rangeParam(uint16_t first, uint8_t count, uint8_t value)
{
    return first | static_cast<uint32_t>(value) << 16 | static_cast<uint32_t>(count) << 24;
}

CallData::CallData(uint16_t callbackIndex, uint16_t callId, int32_t defaultArgument)
{
    putU16(mBytes, callbackIndex);
    putU16(mBytes, callId);
    putU32(mBytes, static_cast<uint32_t>(defaultArgument));
}

void CallData::addInt(uint8_t param, uint16_t row, int32_t value)
{
    mBytes.push_back(param);
    putU16(mBytes, row);
    putU32(mBytes, static_cast<uint32_t>(value));
}

void CallData::addBytes(uint8_t param, uint16_t row, const Bytes& value)
{
    mBytes.push_back(param);
    putU16(mBytes, row);
    size_t n = value.size() > 0xFFFF ? 0xFFFF : value.size();
    putU16(mBytes, static_cast<uint16_t>(n));
    mBytes.insert(mBytes.end(), value.begin(), value.begin() + static_cast<long>(n));
}
}
