#include "PanelRequest.h"

#include <json/json.h>

#include <algorithm>
#include <memory>
#include <sstream>
#include <stdexcept>

namespace panel
{

const std::vector<ServiceMethod>& serviceMethods()
{
    static const std::vector<ServiceMethod> methods = {
        {"reqCBRStateChange", true},  {"reqCBRStartSeek", true},          {"reqCBRStartScan", true},
        {"reqCBRStopScan", true},     {"reqCBRAdjustSquelchLevel", true}, {"reqCBRGetPresetList", true},
        {"reqCBRStorePreset", true},  {"reqCBRSelectPreset", true},       {"reqCBRClearPreset", false},
        {"reqCBRChangeRxToTx", true}, {"reqCBRChangeTxToRx", true},       {"reqCBRWeatherAlertOnOff", true},
        {"getProperties", true},      {"reqCBRHWVersion", true},          {"reqCBRSWVersion", true},
    };
    return methods;
}

const ServiceMethod* findServiceMethod(const std::string& name)
{
    for (const ServiceMethod& m : serviceMethods())
        if (name == m.name)
            return &m;
    return nullptr;
}

namespace
{
std::string trimmed(const std::string& text)
{
    const char* blanks = " \t\r\n";
    const std::size_t first = text.find_first_not_of(blanks);
    if (first == std::string::npos)
        return "";
    return text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

Refusal refuse(int status, std::string message)
{
    Refusal r;
    r.httpStatus = status;
    r.message = std::move(message);
    return r;
}

// "http://127.0.0.1:8027" -> "127.0.0.1:8027"; "" when it is not an http origin.
std::string originHost(const std::string& origin)
{
    const std::string scheme = "http://";
    if (origin.compare(0, scheme.size(), scheme) != 0)
        return "";
    std::string rest = origin.substr(scheme.size());
    if (!rest.empty() && rest.back() == '/')
        rest.pop_back();
    return rest;
}

std::string lowered(std::string text)
{
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}
}  // namespace

Refusal parseCall(const std::string& method, const std::string& body, CallRequest& out)
{
    const ServiceMethod* known = findServiceMethod(method);
    if (!known)
        return refuse(404, "'" + method.substr(0, 64) + "' is not a method of the CB radio service");
    if (body.size() > kMaxBodyBytes)
        return refuse(413, "the argument is larger than " + std::to_string(kMaxBodyBytes) + " bytes");
    const std::string argument = trimmed(body);
    // jsoncpp takes a zero byte for the end of the text and would pass what follows unread.
    if (argument.find('\0') != std::string::npos)
        return refuse(400, "the argument is not valid JSON: it holds a zero byte");
    if (!argument.empty()) {
        Json::CharReaderBuilder builder;
        Json::CharReaderBuilder::strictMode(&builder.settings_);
        builder.settings_["stackLimit"] = 32;
        std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
        Json::Value value;
        std::string errors;
        bool parsed = false;
        try {
            parsed = reader->parse(argument.data(), argument.data() + argument.size(), &value, &errors);
        } catch (const std::exception&) {
            // The reader throws instead of failing when the nesting exceeds its stack limit.
            return refuse(400, "the argument is not valid JSON: nested too deeply");
        }
        if (!parsed) {
            // "* Line 1, Column 9\n  Missing ',' or '}' in object declaration\n" -> one line
            std::string oneLine;
            std::istringstream lines(errors);
            for (std::string line; std::getline(lines, line) && oneLine.size() < 200;) {
                line = trimmed(line);
                if (line.compare(0, 2, "* ") == 0)
                    line = line.substr(2);
                if (!line.empty())
                    oneLine += (oneLine.empty() ? "" : ": ") + line;
            }
            return refuse(400, "the argument is not valid JSON: " + oneLine);
        }
        if (!value.isObject())
            return refuse(400, "the argument must be a JSON object, such as {\"seekDirection\":1}");
    }
    out.method = known->name;
    out.argument = argument;
    out.expectsReply = known->expectsReply;
    return Refusal();
}

bool isSameOrigin(const std::string& origin, const std::string& host)
{
    if (origin.empty())
        return true;
    return !host.empty() && lowered(originHost(origin)) == lowered(host);
}

bool isAllowedHost(const std::string& host, const std::vector<std::string>& allowed)
{
    if (allowed.empty())
        return true;
    const std::string h = lowered(host);
    return std::find(allowed.begin(), allowed.end(), h) != allowed.end();
}

}  // namespace panel
