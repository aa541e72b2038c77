#include "SvcIpcDescription.h"

#include <dbus/dbus.h>

#include <algorithm>
#include <cstring>

namespace svcipc
{

namespace
{
bool isSpace(char c)
{
    return c == ' ' || c == '\t' || c == '\n' || c == '\r';
}

bool isNameStart(char c)
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_' || c == ':';
}

bool isNameChar(char c)
{
    return isNameStart(c) || (c >= '0' && c <= '9') || c == '-' || c == '.';
}

class Reader
{
public:
    explicit Reader(const char* text) : mText(text), mSize(std::strlen(text)) {}

    bool read(InterfaceDescription& out)
    {
        bool rootSeen = false;
        while (mPos < mSize) {
            if (mText[mPos] != '<') {
                if (!text())
                    return false;
                continue;
            }
            if (startsWith("<?")) {
                if (rootSeen || !skipPast("?>"))
                    return false;
            } else if (startsWith("<!--")) {
                if (!skipPast("-->"))
                    return false;
            } else if (startsWith("<!DOCTYPE")) {
                if (rootSeen || !doctype())
                    return false;
            } else if (startsWith("</")) {
                if (!endTag(out))
                    return false;
            } else {
                if (!startTag(out))
                    return false;
                rootSeen = true;
            }
        }
        if (!mOpen.empty() || out.xml.empty())
            return false;
        std::sort(out.methods.begin(), out.methods.end());
        out.methods.erase(std::unique(out.methods.begin(), out.methods.end()), out.methods.end());
        return true;
    }

private:
    bool startsWith(const char* s) const { return std::strncmp(mText + mPos, s, std::strlen(s)) == 0; }

    bool skipPast(const char* end)
    {
        const char* found = std::strstr(mText + mPos, end);
        if (!found)
            return false;
        mPos = static_cast<size_t>(found - mText) + std::strlen(end);
        return true;
    }

    bool doctype()
    {
        const char* end = std::strchr(mText + mPos, '>');
        if (!end || std::memchr(mText + mPos, '[', static_cast<size_t>(end - (mText + mPos))))
            return false;  // no internal subset: nothing may define entities
        mPos = static_cast<size_t>(end - mText) + 1;
        return true;
    }

    // "&name;" or "&#digits;" / "&#xhex;" at mPos.
    bool reference()
    {
        size_t p = mPos + 1;
        const size_t start = p;
        while (p < mSize && p - start < 16 && (isNameChar(mText[p]) || mText[p] == '#'))
            ++p;
        if (p == start || p >= mSize || mText[p] != ';')
            return false;
        mPos = p + 1;
        return true;
    }

    // Steps over one character at mPos, or over a whole reference; false when that is malformed.
    bool character()
    {
        if (mText[mPos] == '&')
            return reference();
        ++mPos;
        return true;
    }

    // Character data: only white space outside the elements.
    bool text()
    {
        while (mPos < mSize && mText[mPos] != '<') {
            if ((mOpen.empty() && !isSpace(mText[mPos])) || !character())
                return false;
        }
        return true;
    }

    bool name(std::string& out)
    {
        const size_t start = mPos;
        if (mPos >= mSize || !isNameStart(mText[mPos]))
            return false;
        while (mPos < mSize && isNameChar(mText[mPos]))
            ++mPos;
        out.assign(mText + start, mPos - start);
        return true;
    }

    void spaces()
    {
        while (mPos < mSize && isSpace(mText[mPos]))
            ++mPos;
    }

    bool attributeValue(std::string& out)
    {
        if (mPos >= mSize || (mText[mPos] != '"' && mText[mPos] != '\''))
            return false;
        const char quote = mText[mPos++];
        const size_t start = mPos;
        while (mPos < mSize && mText[mPos] != quote) {
            if (mText[mPos] == '<' || !character())
                return false;
        }
        if (mPos >= mSize)
            return false;
        out.assign(mText + start, mPos - start);
        ++mPos;
        return true;
    }

    // The attributes up to "/>" or ">"; each at most once, and the value of "name" kept.
    bool attributes(std::string& nameAttr, bool& hasName)
    {
        std::vector<std::string> seen;
        for (;;) {
            const size_t before = mPos;
            spaces();
            if (startsWith("/>") || startsWith(">"))
                return true;
            if (mPos == before)
                return false;  // attributes are separated by white space
            std::string attr, value;
            if (!name(attr))
                return false;
            spaces();
            if (mPos >= mSize || mText[mPos] != '=')
                return false;
            ++mPos;
            spaces();
            if (!attributeValue(value))
                return false;
            if (std::find(seen.begin(), seen.end(), attr) != seen.end())
                return false;
            seen.push_back(attr);
            if (attr == "name") {
                nameAttr = value;
                hasName = true;
            }
        }
    }

    // Where the element stands decides what it means: one <node> document, or a fragment of
    // <interface> elements.
    bool rootAllowed(const std::string& element)
    {
        if (element != "node" && element != "interface")
            return false;
        if (mRoots > 0 && (mFirstRoot == "node" || element == "node"))
            return false;
        if (mRoots++ == 0)
            mFirstRoot = element;
        return true;
    }

    bool startTag(InterfaceDescription& out)
    {
        const size_t tagStart = mPos;
        ++mPos;
        std::string element, nameAttr;
        bool hasName = false;
        if (!name(element) || !attributes(nameAttr, hasName))
            return false;
        const bool selfClosing = startsWith("/>");
        mPos += selfClosing ? 2 : 1;

        const size_t depth = mOpen.size();
        if (depth == 0 && !rootAllowed(element))
            return false;
        const bool topLevel = depth == 0 || (depth == 1 && mOpen[0] == "node");
        if (element == "interface" && topLevel) {
            if (!hasName || !dbus_validate_interface(nameAttr.c_str(), nullptr))
                return false;
            // The standard interfaces are the library's own; a copy of them is left out.
            const bool standard = nameAttr.rfind("org.freedesktop.DBus.", 0) == 0;
            mInterfaceStart = tagStart;
            mInInterface = !selfClosing && !standard;
            if (selfClosing && !standard)
                capture(out, tagStart);
        } else if (element == "method" && mInInterface && mOpen.back() == "interface") {
            if (!hasName || !dbus_validate_member(nameAttr.c_str(), nullptr))
                return false;
            out.methods.push_back(nameAttr);
        }
        if (!selfClosing) {
            if (mOpen.size() >= kMaxDepth)
                return false;
            mOpen.push_back(element);
        }
        return true;
    }

    bool endTag(InterfaceDescription& out)
    {
        mPos += 2;
        std::string element;
        if (!name(element))
            return false;
        spaces();
        if (mPos >= mSize || mText[mPos] != '>')
            return false;
        ++mPos;
        if (mOpen.empty() || mOpen.back() != element)
            return false;
        mOpen.pop_back();
        const bool topLevel = mOpen.empty() || (mOpen.size() == 1 && mOpen[0] == "node");
        if (element == "interface" && topLevel && mInInterface) {
            mInInterface = false;
            capture(out, mInterfaceStart);
        }
        return true;
    }

    void capture(InterfaceDescription& out, size_t start)
    {
        out.xml.append(mText + start, mPos - start);
        out.xml += '\n';
    }

    const char* mText;
    size_t mSize;
    size_t mPos = 0;
    std::vector<std::string> mOpen;
    std::string mFirstRoot;
    int mRoots = 0;
    bool mInInterface = false;
    size_t mInterfaceStart = 0;
};
}  // namespace

bool InterfaceDescription::hasMethod(const char* member) const
{
    if (!member)
        return false;
    auto it = std::lower_bound(methods.begin(), methods.end(), member,
                               [](const std::string& a, const char* b) { return a.compare(b) < 0; });
    return it != methods.end() && *it == member;
}

bool parseDescription(const char* text, InterfaceDescription& out)
{
    if (!text)
        return false;
    InterfaceDescription parsed;
    if (!Reader(text).read(parsed))
        return false;
    out = std::move(parsed);
    return true;
}

}  // namespace svcipc
