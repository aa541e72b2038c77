#include "CtlJson.h"

#include <cctype>
#include <cstdio>
#include <cstdlib>

namespace cbradioctl
{

namespace
{
void appendQuoted(std::string& out, const std::string& text)
{
    out += '"';
    for (unsigned char c : text) {
        if (c == '"' || c == '\\') {
            out += '\\';
            out += static_cast<char>(c);
        } else if (c < 0x20) {
            char buf[8];
            snprintf(buf, sizeof buf, "\\u%04x", c);
            out += buf;
        } else {
            out += static_cast<char>(c);
        }
    }
    out += '"';
}

// A validating reader over one text; remembers the top-level "code" member.
class Reader
{
public:
    explicit Reader(const std::string& text) : mText(text) {}

    ReplyCode read()
    {
        skipSpace();
        const bool object = peek() == '{';
        if (!value(0))
            return ReplyCode::NotAnObject;
        skipSpace();
        if (mAt != mText.size() || !object)
            return ReplyCode::NotAnObject;
        return mCode;
    }

private:
    static constexpr int kMaxDepth = 256;

    char peek() const { return mAt < mText.size() ? mText[mAt] : '\0'; }
    bool eat(char c)
    {
        if (peek() != c)
            return false;
        ++mAt;
        return true;
    }
    void skipSpace()
    {
        while (mAt < mText.size() &&
               (mText[mAt] == ' ' || mText[mAt] == '\t' || mText[mAt] == '\n' || mText[mAt] == '\r'))
            ++mAt;
    }
    bool literal(const char* word)
    {
        for (; *word; ++word)
            if (!eat(*word))
                return false;
        return true;
    }
    bool string(std::string* out)
    {
        if (!eat('"'))
            return false;
        while (mAt < mText.size()) {
            const unsigned char c = static_cast<unsigned char>(mText[mAt++]);
            if (c == '"')
                return true;
            if (c < 0x20)
                return false;
            if (c != '\\') {
                if (out)
                    *out += static_cast<char>(c);
                continue;
            }
            const char e = peek();
            ++mAt;
            if (e == 'u') {
                for (int i = 0; i < 4; ++i, ++mAt)
                    if (!isxdigit(static_cast<unsigned char>(peek())))
                        return false;
                if (out)
                    *out += '?';  // only key names are compared, and ours are plain ASCII
            } else if (e == '"' || e == '\\' || e == '/' || e == 'b' || e == 'f' || e == 'n' || e == 'r' || e == 't') {
                if (out)
                    *out += e;
            } else {
                return false;
            }
        }
        return false;
    }
    // A number as JSON writes it; `isZero` tells whether its value is 0.
    bool number(bool& isZero)
    {
        const size_t start = mAt;
        eat('-');
        if (eat('0')) {
        } else if (isdigit(static_cast<unsigned char>(peek()))) {
            while (isdigit(static_cast<unsigned char>(peek())))
                ++mAt;
        } else {
            return false;
        }
        if (eat('.')) {
            if (!isdigit(static_cast<unsigned char>(peek())))
                return false;
            while (isdigit(static_cast<unsigned char>(peek())))
                ++mAt;
        }
        if (eat('e') || eat('E')) {
            if (!eat('+'))
                eat('-');
            if (!isdigit(static_cast<unsigned char>(peek())))
                return false;
            while (isdigit(static_cast<unsigned char>(peek())))
                ++mAt;
        }
        isZero = strtod(mText.substr(start, mAt - start).c_str(), nullptr) == 0.0;
        return true;
    }
    bool value(int depth)
    {
        if (depth > kMaxDepth)
            return false;
        skipSpace();
        switch (peek()) {
        case '{':
            return object(depth);
        case '[':
            return array(depth);
        case '"':
            return string(nullptr);
        case 't':
            return literal("true");
        case 'f':
            return literal("false");
        case 'n':
            return literal("null");
        default: {
            bool zero = false;
            return number(zero);
        }
        }
    }
    bool object(int depth)
    {
        eat('{');
        skipSpace();
        if (eat('}'))
            return true;
        do {
            skipSpace();
            std::string key;
            if (!string(&key))
                return false;
            skipSpace();
            if (!eat(':'))
                return false;
            skipSpace();
            if (depth == 0 && key == "code") {
                bool zero = false;
                const size_t start = mAt;
                if (number(zero)) {
                    mCode = zero ? ReplyCode::Zero : ReplyCode::Other;
                } else {
                    mAt = start;
                    if (!value(depth + 1))
                        return false;
                    mCode = ReplyCode::Other;
                }
            } else if (!value(depth + 1)) {
                return false;
            }
            skipSpace();
        } while (eat(','));
        return eat('}');
    }
    bool array(int depth)
    {
        eat('[');
        skipSpace();
        if (eat(']'))
            return true;
        do {
            if (!value(depth + 1))
                return false;
            skipSpace();
        } while (eat(','));
        return eat(']');
    }

    const std::string& mText;
    size_t mAt = 0;
    ReplyCode mCode = ReplyCode::None;
};
}  // namespace

std::string jsonIntObject(const std::vector<std::pair<std::string, long>>& members)
{
    std::string out = "{";
    for (const auto& m : members) {
        if (out.size() > 1)
            out += ',';
        appendQuoted(out, m.first);
        out += ':' + std::to_string(m.second);
    }
    return out + '}';
}

std::string jsonStringObject(const std::string& key, const std::string& value)
{
    std::string out = "{";
    appendQuoted(out, key);
    out += ':';
    appendQuoted(out, value);
    return out + '}';
}

ReplyCode replyCode(const std::string& text)
{
    return Reader(text).read();
}

}  // namespace cbradioctl
