// CtlJson: the little JSON cbradioctl needs, without a JSON library.
//
// A one-shot command line tool pays for every shared library it loads on every run; writing the
// few argument objects and reading one member of a reply does not need one. Texts are written
// compactly, keys in the order given, as the service's other clients send them.
#ifndef CTLJSON_H
#define CTLJSON_H

#include <string>
#include <utility>
#include <vector>

namespace cbradioctl
{

// {"key":value,...} with integer values.
std::string jsonIntObject(const std::vector<std::pair<std::string, long>>& members);

// {"key":"value"}, the value escaped as JSON requires.
std::string jsonStringObject(const std::string& key, const std::string& value);

// What a reply says in its top-level "code" member.
enum class ReplyCode {
    NotAnObject,  // not JSON, or JSON but not an object
    None,         // an object without "code"
    Zero,         // "code" is the number 0
    Other         // "code" is anything else
};

// Reads `text` as exactly one JSON value (surrounding white space allowed). Nesting deeper than a
// few hundred levels counts as not JSON.
ReplyCode replyCode(const std::string& text);

}  // namespace cbradioctl

#endif
