// CBRadioJson: reading and writing the JSON texts the CB radio service exchanges with the other
// services of the head unit (signal payloads, call replies, call arguments).
//
// Payloads come from other processes and are trusted for nothing. jsoncpp throws on input nested
// too deeply and on conversions of the wrong type (asInt() of a string, operator[] of an array);
// every function here catches or avoids that, so a caller never sees an exception and never has
// to convert a value it has not checked.
//
// Rules the handlers share:
//   - A text is usable only when it parses as one JSON object. A null text, text that is not
//     JSON and JSON that is not an object (a number, an array) are all "parse errors": no member
//     can be read from them. Text after a complete object is ignored, as jsoncpp's Reader does,
//     so payloads the service has always accepted keep being accepted.
//   - An integer member must be a JSON number within the range of an int; it is converted as
//     jsoncpp's asInt() converts it, so a fraction is cut towards zero (1.9 reads as 1). Booleans,
//     numeric strings and out-of-range numbers do not count as integers.
//   - A text member must be a JSON string; anything else reads as absent.
// All functions may be called from any thread; only signalObject and replyObject trace, on the
// caller's scope, and nothing else has side effects.
#ifndef CBRADIOJSON_H
#define CBRADIOJSON_H

#include "svcipc.h"

#include <json/json.h>

#include <string>

class CJTTraceScope;

namespace CBRadioJson
{
// Parses `text` (comments not kept) into `root`. True only for a JSON object.
bool parseObject(const char* text, Json::Value& root);

// The member `key` of `object`, or a null value when `object` is not an object or lacks it.
const Json::Value& member(const Json::Value& object, const char* key);

// True, with the value, when `number` is an integer as defined above.
bool toInt(const Json::Value& number, int& value);

// True, with the value, when member `key` is an integer as defined above.
bool readInt(const Json::Value& object, const char* key, int& value);

// True, with the text, when member `key` is a string.
bool readString(const Json::Value& object, const char* key, std::string& value);

// Member `key` as a string; "" when absent or not a string.
std::string stringOr(const Json::Value& object, const char* key);

// A signal handler's payload: true with `root` when the signal is `expected` and `data` is a
// JSON object; otherwise traces `wrongName` or `notAnObject` and returns false.
bool signalObject(const CJTTraceScope& scope, const char* sigName, const char* expected, const char* data,
                  Json::Value& root, const char* wrongName, const char* notAnObject);

// A completion's reply: true with `root` when the call succeeded (a null status counts as
// failed) and `result` is a JSON object; otherwise traces `failed` or `notAnObject` and
// returns false.
bool replyObject(const CJTTraceScope& scope, const SVCIPC_tCallbackStatus* status, const char* result,
                 Json::Value& root, const char* failed, const char* notAnObject);

// The compact form other services expect: one line ending in a newline, members sorted.
std::string write(const Json::Value& value);
}

#endif
