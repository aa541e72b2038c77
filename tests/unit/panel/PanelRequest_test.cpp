// What the panel lets through to the bus: the service's method names only, small bodies holding
// one strict JSON object (or nothing), and requests from its own origin and host names.
#include "PanelRequest.h"

#include <gtest/gtest.h>

#include <string>

using namespace panel;

TEST(PanelRequest, AcceptsExactlyTheServicesFifteenMethods)
{
    const char* const names[] = {"reqCBRHWVersion",     "reqCBRSWVersion",    "reqCBRWeatherAlertOnOff",
                                 "getProperties",       "reqCBRStateChange",  "reqCBRAdjustSquelchLevel",
                                 "reqCBRStartSeek",     "reqCBRStartScan",    "reqCBRStopScan",
                                 "reqCBRGetPresetList", "reqCBRStorePreset",  "reqCBRSelectPreset",
                                 "reqCBRClearPreset",   "reqCBRChangeRxToTx", "reqCBRChangeTxToRx"};
    for (const char* name : names) {
        CallRequest call;
        EXPECT_FALSE(parseCall(name, "", call)) << name;
        EXPECT_EQ(call.method, name);
        // The service never answers a preset clear; waiting for it would only time out.
        EXPECT_EQ(call.expectsReply, std::string(name) != "reqCBRClearPreset") << name;
    }
    EXPECT_EQ(serviceMethods().size(), sizeof names / sizeof names[0]);
}

TEST(PanelRequest, RefusesWithTheRightStatusAndSaysWhy)
{
    const std::string deep = std::string(5000, '[') + std::string(5000, ']');
    const struct
    {
        const char* method;
        std::string body;
        int status;
        const char* said;  // part of the message, or the argument forwarded when accepted
    } cases[] = {
        {"reqCBRStartSeek", "{\"seekDirection\":1}", 0, "{\"seekDirection\":1}"},
        {"reqCBRStartSeek", " \n{\"seekDirection\":0}\r\n", 0, "{\"seekDirection\":0}"},
        {"reqCBRStartScan", "  ", 0, ""},
        {"Introspect", "", 404, "not a method"},
        {"reqcbrstartseek", "", 404, "not a method"},
        {"reqCBRStartSeek ", "", 404, "not a method"},
        {"reqCBRStartSeek", "{\"seekDirection\":", 400, "not valid JSON: Line 1"},
        {"reqCBRStartSeek", "{\"seekDirection\":1} {}", 400, "not valid JSON"},
        {"reqCBRStartSeek", "{'seekDirection':1}", 400, "not valid JSON"},
        {"reqCBRStartSeek", "{\"seekDirection\":1} // up", 400, "not valid JSON"},
        {"reqCBRStartSeek", std::string("{\"seekDirection\":1}\0}", 21), 400, "zero byte"},
        {"reqCBRStartSeek", "[1]", 400, "must be a JSON object"},
        {"reqCBRStartSeek", "1", 400, "not valid JSON"},
        {"reqCBRStartSeek", deep.substr(0, 4000), 400, "nested too deeply"},
        {"reqCBRStartSeek", std::string(kMaxBodyBytes + 1, ' '), 413, "larger than 4096 bytes"},
    };
    for (const auto& c : cases) {
        CallRequest call;
        const Refusal refusal = parseCall(c.method, c.body, call);
        const std::string what = std::string(c.method) + " " + c.body.substr(0, 40);
        EXPECT_EQ(refusal.httpStatus, c.status) << what << ": " << refusal.message;
        if (c.status == 0)
            EXPECT_EQ(call.argument, c.said) << what;
        else
            EXPECT_NE(refusal.message.find(c.said), std::string::npos) << what << ": " << refusal.message;
    }
}

TEST(PanelRequest, OnlyTheOwnOriginAndHostNamesPass)
{
    const std::string host = "127.0.0.1:8027";
    EXPECT_TRUE(isSameOrigin("", host));  // not sent by a page (curl, a navigation)
    EXPECT_TRUE(isSameOrigin("http://127.0.0.1:8027", host));
    EXPECT_TRUE(isSameOrigin("http://LOCALHOST:8027", "localhost:8027"));
    for (const char* other : {"http://127.0.0.1:8028", "https://127.0.0.1:8027", "null", "http://evil.example",
                              "http://127.0.0.1:8027.evil.example"})
        EXPECT_FALSE(isSameOrigin(other, host)) << other;

    const std::vector<std::string> allowed = {"127.0.0.1:8027", "localhost:8027"};
    EXPECT_TRUE(isAllowedHost("127.0.0.1:8027", allowed));
    EXPECT_TRUE(isAllowedHost("LocalHost:8027", allowed));
    for (const char* other : {"evil.example:8027", "127.0.0.1", "", "localhost:8027 "})
        EXPECT_FALSE(isAllowedHost(other, allowed)) << other;
    EXPECT_TRUE(isAllowedHost("panel.example:8027", {}));  // listening on every address
}
