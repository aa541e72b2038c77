// SvcIpcDescription: the interface description a service hands over, read once when it is set.
//
// The text is D-Bus introspection XML: one or more <interface> elements, either on their own or
// inside one <node> (an XML declaration, a DOCTYPE without internal subset and comments may come
// first). It is outside input, so it is read by a small non-recursive reader that accepts only
// well-formed markup (balanced, matching tags, quoted attributes, no '<' in values, only the
// usual entity and character references, at most kMaxDepth levels) and refuses everything else.
// The <interface> elements are kept verbatim, to be served by Introspect; the names of their
// methods are kept to tell an unknown method from one that returned no result. Child <node>
// elements are dropped: the library lists children itself. No connection, no locks.
#ifndef SVCIPC_DESCRIPTION_H
#define SVCIPC_DESCRIPTION_H

#include <cstddef>
#include <string>
#include <vector>

namespace svcipc
{

struct InterfaceDescription
{
    std::string xml;                   // the <interface> elements, each followed by a newline
    std::vector<std::string> methods;  // every method name of those interfaces, sorted, unique

    bool hasMethod(const char* member) const;
};

constexpr size_t kMaxDepth = 32;

// False, leaving `out` untouched, when the text is not such a description or holds no interface.
bool parseDescription(const char* text, InterfaceDescription& out);

}  // namespace svcipc

#endif
