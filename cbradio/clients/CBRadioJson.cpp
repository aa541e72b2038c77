// CBRadioJson: see the header for the rules.
#include "CBRadioJson.h"

#include "CJTTraceScope.h"

#include <cstring>

namespace CBRadioJson
{
bool parseObject(const char* text, Json::Value& root)
{
    root = Json::Value();
    if (text == nullptr)
        return false;
    try {
        Json::Reader reader;
        if (!reader.parse(std::string(text), root, false))
            return false;
    } catch (const std::exception&) {
        // The reader gives up on deep nesting by throwing; to the caller it is bad input.
        root = Json::Value();
        return false;
    }
    return root.isObject();
}

const Json::Value& member(const Json::Value& object, const char* key)
{
    static const Json::Value absent;
    if (!object.isObject())
        return absent;
    const Json::Value* found = object.find(key, key + std::char_traits<char>::length(key));
    return found != nullptr ? *found : absent;
}

bool toInt(const Json::Value& number, int& value)
{
    // isNumeric() keeps booleans out; the range test keeps asInt() from throwing.
    if (!number.isNumeric() || !number.isConvertibleTo(Json::intValue))
        return false;
    value = number.asInt();
    return true;
}

bool readInt(const Json::Value& object, const char* key, int& value)
{
    return toInt(member(object, key), value);
}

bool readString(const Json::Value& object, const char* key, std::string& value)
{
    const Json::Value& v = member(object, key);
    if (!v.isString())
        return false;
    value = v.asString();
    return true;
}

std::string stringOr(const Json::Value& object, const char* key)
{
    std::string value;
    readString(object, key, value);
    return value;
}

std::string write(const Json::Value& value)
{
    Json::FastWriter writer;
    return writer.write(value);
}

bool signalObject(const CJTTraceScope& scope, const char* sigName, const char* expected, const char* data,
                  Json::Value& root, const char* wrongName, const char* notAnObject)
{
    if (sigName == nullptr || std::strcmp(sigName, expected) != 0) {
        scope.sendFormattedMessage("%s", wrongName);
        return false;
    }
    if (!parseObject(data, root)) {
        scope.sendFormattedMessage("%s", notAnObject);
        return false;
    }
    return true;
}

bool replyObject(const CJTTraceScope& scope, const SVCIPC_tCallbackStatus* status, const char* result,
                 Json::Value& root, const char* failed, const char* notAnObject)
{
    if (status == nullptr || status->errCode != 0) {
        scope.sendFormattedMessage("%s", failed);
        return false;
    }
    if (!parseObject(result, root)) {
        scope.sendFormattedMessage("%s", notAnObject);
        return false;
    }
    return true;
}
}
