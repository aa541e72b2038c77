// CBRadioJsonText: the JSON texts the service publishes (method results and signal payloads),
// written straight out instead of through a jsoncpp document.
//
// Every text is byte for byte what jsoncpp's FastWriter makes of the same object, because that is
// what clients have always received: members in jsoncpp's key order (bytewise), no spaces,
// integers in decimal, strings quoted and escaped by jsoncpp's own quoting function, and a newline
// at the end. Keys are the service's own names and need no escaping.
//
// Building a document per call cost ten times more than writing the bytes; the two standard
// results are built once for the life of the process.
//
// No errors; all functions may be called from any thread.
#ifndef CBRADIOJSONTEXT_H
#define CBRADIOJSONTEXT_H

#include <cstddef>
#include <string>

namespace CBRadioJsonText
{
// {"code":0,"description":"success"} and {"code":1,"description":"failure"}.
const std::string& success();
const std::string& failure();

// {"<key>":<value>}
std::string object(const char* key, int value);

// The object with both members, in key order whatever the order given.
std::string object(const char* key1, int value1, const char* key2, int value2);

// {"CBRadioPresetList":[{"Channel_number":c,"PresetNo":n},...]} with n = 1..count and c the
// channels in order.
std::string presetList(const int* channels, size_t count);

// The success object with one more string member, {"<key>":"<text>","code":0,...}.
std::string successWith(const char* key, const std::string& text);
}

#endif
