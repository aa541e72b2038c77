// CBRadioJsonText: see the header for the rules.
#include "CBRadioJsonText.h"

#include <json/json.h>

#include <algorithm>
#include <charconv>
#include <iterator>
#include <utility>
#include <cstring>

namespace CBRadioJsonText
{
namespace
{
void appendInt(std::string& out, int value)
{
    char digits[16];
    const auto end = std::to_chars(digits, digits + sizeof(digits), value).ptr;
    out.append(digits, static_cast<size_t>(end - digits));
}

// "key":
void appendKey(std::string& out, const char* key)
{
    out += '"';
    out += key;
    out += "\":";
}

void appendMember(std::string& out, const char* key, int value)
{
    appendKey(out, key);
    appendInt(out, value);
}

// jsoncpp orders members by their bytes, as strcmp does for texts without a zero byte.
bool before(const char* a, const char* b)
{
    return std::strcmp(a, b) < 0;
}

std::string result(int code, const char* description)
{
    std::string text = "{\"code\":";
    appendInt(text, code);
    text += ",\"description\":";
    text += Json::valueToQuotedString(description);
    text += "}\n";
    return text;
}
}

const std::string& success()
{
    static const std::string text = result(0, "success");
    return text;
}

const std::string& failure()
{
    static const std::string text = result(1, "failure");
    return text;
}

std::string object(const char* key, int value)
{
    std::string text;
    text.reserve(32);
    text += '{';
    appendMember(text, key, value);
    text += "}\n";
    return text;
}

std::string object(const char* key1, int value1, const char* key2, int value2)
{
    if (before(key2, key1))
        return object(key2, value2, key1, value1);
    std::string text;
    text.reserve(48);
    text += '{';
    appendMember(text, key1, value1);
    text += ',';
    appendMember(text, key2, value2);
    text += "}\n";
    return text;
}

std::string presetList(const int* channels, size_t count)
{
    std::string text;
    text.reserve(32 + 40 * count);
    text += "{\"CBRadioPresetList\":[";
    for (size_t i = 0; i < count; ++i) {
        if (i > 0)
            text += ',';
        text += '{';
        appendMember(text, "Channel_number", channels[i]);
        text += ',';
        appendMember(text, "PresetNo", static_cast<int>(i + 1));
        text += '}';
    }
    text += "]}\n";
    return text;
}

std::string successWith(const char* key, const std::string& value)
{
    // The three members as "key":value, then in jsoncpp's order.
    std::pair<std::string, std::string> members[] = {
        {key, Json::valueToQuotedString(value.c_str())},
        {"code", "0"},
        {"description", "\"success\""},
    };
    std::sort(std::begin(members), std::end(members));
    std::string text = "{";
    for (const auto& member : members) {
        if (text.size() > 1)
            text += ',';
        appendKey(text, member.first.c_str());
        text += member.second;
    }
    text += "}\n";
    return text;
}
}
