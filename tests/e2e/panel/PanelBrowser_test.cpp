// The browser panel in a real headless Chromium, against a simulated head unit: a private bus,
// v850sim, peersim for the peer services, cbradiod and cbradio-panel, all real processes. The test
// works the page as a person would (clicks, holds) and reads what it shows; the radio's answers
// come from the simulator. It also takes the screenshot the README shows.
#include "HeadUnit.h"

#include <httplib.h>
#include <json/json.h>
#include <openssl/evp.h>
#include <gtest/gtest.h>

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <thread>

namespace
{
const char* const kBrowser = "/usr/bin/chromium";
const char* const kDriver = "/usr/bin/chromedriver";
const char* const kElementKey = "element-6066-11e4-a52e-4f735466cecf";

// A headless Chromium driven through chromedriver's W3C WebDriver protocol, with a fresh profile.
// Every request has a bounded time-out; failures come back as false or null, with error() telling.
class Browser
{
public:
    ~Browser()
    {
        if (!mSession.empty())
            request("DELETE", "");
        mDriver.stop(2000);
    }

    bool start(const std::string& workDir)
    {
        ChildProcess::Io io;
        io.outPath = workDir + "/chromedriver.out";
        io.errPath = workDir + "/chromedriver.err";
        const char* const started = "started successfully on port ";
        if (!mDriver.start({kDriver, "--port=0"}, ChildProcess::environmentWith({}), io) ||
            !waitUntil([&] { return readFile(io.outPath).find(started) != std::string::npos; }, 10000))
            return fail("chromedriver did not start: " + readFile(io.errPath));
        const std::string out = readFile(io.outPath);
        mPort = std::stoi(out.substr(out.find(started) + std::strlen(started)));
        if (!waitUntil([&] { return call("GET", "/status")["value"]["ready"].asBool(); }, 10000))
            return fail("chromedriver did not get ready on port " + std::to_string(mPort));
        Json::Value caps;
        Json::Value& chrome = caps["capabilities"]["alwaysMatch"]["goog:chromeOptions"];
        chrome["binary"] = kBrowser;
        for (const std::string arg : {"--headless", "--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run",
                                      "--disable-background-networking", "--disable-component-update", "--disable-sync",
                                      "--disable-dev-shm-usage", "--window-size=1360,1000"})
            chrome["args"].append(arg);
        chrome["args"].append("--user-data-dir=" + workDir + "/chromium-profile");
        mSession = call("POST", "/session", caps.toStyledString())["value"]["sessionId"].asString();
        return !mSession.empty() || fail("no browser session: " + mError);
    }

    const std::string& error() const { return mError; }

    bool open(const std::string& url) { return !request("POST", "/url", R"({"url":)" + quoted(url) + "}").isNull(); }

    // Runs `body` (a function body, e.g. "return document.title;") in the page.
    Json::Value script(const std::string& body)
    {
        return request("POST", "/execute/sync", R"({"script":)" + quoted(body) + R"(,"args":[]})")["value"];
    }

    // The left button goes down on the element and stays down until release().
    bool press(const std::string& css)
    {
        const Json::Value found = request("POST", "/element",
                                          R"({"using":"css selector","value":)" + quoted(css) + "}");
        const std::string id = found["value"][kElementKey].asString();
        const std::string origin = "{\"" + std::string(kElementKey) + "\":\"" + id + "\"}";
        return !id.empty() && pointer(R"({"type":"pointerMove","duration":0,"x":0,"y":0,"origin":)" + origin +
                                      R"(},{"type":"pointerDown","button":0})");
    }

    bool release() { return pointer(R"({"type":"pointerUp","button":0})"); }
    bool click(const std::string& css) { return press(css) && release(); }

    bool screenshot(const std::string& pngPath)
    {
        const std::string text = request("GET", "/screenshot")["value"].asString();
        std::string png(text.size() / 4 * 3, '\0');
        const int size = EVP_DecodeBlock(reinterpret_cast<unsigned char*>(&png[0]),
                                         reinterpret_cast<const unsigned char*>(text.data()), int(text.size()));
        if (text.size() < 4 || size < 0)
            return false;
        png.resize(size - std::count(text.end() - 2, text.end(), '='));  // padding decodes to zero bytes
        std::ofstream(pngPath, std::ios::binary) << png;
        return true;
    }

private:
    bool fail(const std::string& why)
    {
        mError = why;
        return false;
    }

    static std::string quoted(const std::string& text) { return Json::valueToQuotedString(text.c_str()); }

    // One request to chromedriver; its JSON answer, or null (and error()) unless HTTP 200.
    Json::Value call(const std::string& method, const std::string& path, const std::string& body = "{}")
    {
        httplib::Client client("127.0.0.1", mPort);
        client.set_connection_timeout(2, 0);
        client.set_read_timeout(30, 0);
        httplib::Result res = method == "GET"      ? client.Get(path.c_str())
                              : method == "DELETE" ? client.Delete(path.c_str())
                                                   : client.Post(path.c_str(), body, "application/json");
        Json::Value value;
        std::string errors;
        std::istringstream in(res ? res->body : "");
        if (!res || res->status != 200 || !Json::parseFromStream(Json::CharReaderBuilder(), in, &value, &errors)) {
            mError = method + " " + path + ": " + (res ? res->body.substr(0, 300) : httplib::to_string(res.error()));
            return Json::Value();
        }
        return value;
    }

    Json::Value request(const std::string& method, const std::string& path, const std::string& body = "{}")
    {
        return call(method, "/session/" + mSession + path, body);
    }

    // One pointer action sequence of the mouse: `steps` are its actions, as JSON objects.
    bool pointer(const std::string& steps)
    {
        const std::string mouse = R"({"type":"pointer","id":"mouse","parameters":{"pointerType":"mouse"},"actions":[)";
        return !request("POST", "/actions", R"({"actions":[)" + mouse + steps + "]}]}").isNull();
    }

    ChildProcess mDriver;
    int mPort = 0;
    std::string mSession;
    std::string mError;
};

class PanelBrowser : public ::testing::Test
{
protected:
    void SetUp() override
    {
        for (const char* program : {kBrowser, kDriver})
            if (::access(program, X_OK) != 0)
                GTEST_SKIP() << "no browser to test the panel with: " << program
                             << " not installed (bash scripts/setup.sh installs chromium and chromium-driver)";

        HeadUnit::Options options;
        options.traceSettings = "JTTracePersistence 1.1.0\n* 62 8\n";
        // The peers answer at once, so the read-out and the audio sources follow promptly.
        options.startPeers = true;
        options.peerArgs = {"--cmd", "delay all 0"};
        options.beforeDaemon = [this](HeadUnit& unit) {
            unit.spawn({HeadUnit::buildDir() + "/tools/cbradio-panel/cbradio-panel", "--port=0"}, "panel");
            if (!unit.waitForFile("panel.out", "http://", 0, 10000))
                return false;
            const std::string out = HeadUnit::readFile(unit.path("panel.out"));
            mUrl = out.substr(out.find("http://"));
            mUrl = mUrl.substr(0, mUrl.find_first_of(" \n"));
            return true;
        };
        ASSERT_TRUE(mUnit.start(options)) << mUnit.error();
        ASSERT_TRUE(mBrowser.start(mUnit.root())) << mBrowser.error();
        ASSERT_TRUE(mBrowser.open(mUrl)) << mBrowser.error();
    }

    // What the page shows in `what` of the element `css` ("" when absent).
    std::string shown(const std::string& css, const std::string& what = "dataset.value")
    {
        Json::Value v = mBrowser.script("const e = document.querySelector('" + css + "'); return e ? String(e." + what +
                                        ") : '';");
        return v.isString() ? v.asString() : "";
    }
    bool shows(const std::string& css, const std::string& value, const std::string& what = "dataset.value")
    {
        // Polled at a pace the browser keeps up with.
        return waitUntil([&] { return shown(css, what) == value; }, 10000, 100);
    }
    bool lit(const std::string& css, bool on) { return shows(css, on ? "true" : "false", "classList.contains('on')"); }
    bool overlayShown(bool visible) { return shows("#offbus", visible ? "false" : "true", "hidden"); }
    std::string pageLog() { return shown("#log", "innerText"); }

    HeadUnit mUnit;
    Browser mBrowser;
    std::string mUrl;
};

TEST_F(PanelBrowser, DrivesTheRadioAndFollowsTheServiceThroughARestart)
{
    ASSERT_TRUE(overlayShown(false)) << "the page never saw the service on the bus\n" << pageLog();

    // The module reports itself connected (the service then asks it for its software version).
    mUnit.simulator("hw back");
    EXPECT_TRUE(shows("#st-hw", "connected", "textContent")) << pageLog();

    // Switched on: the V850 confirms, the service signals state, channel and squelch.
    ASSERT_TRUE(mBrowser.click("#power"));
    EXPECT_TRUE(shows("#channel", "1")) << pageLog();
    EXPECT_TRUE(shows("#squelch", "8")) << pageLog();

    // Seek up shows what the simulator answered, and so does a channel it reports by itself.
    ASSERT_TRUE(mBrowser.click("#seek-up"));
    EXPECT_TRUE(shows("#channel", "2")) << pageLog();
    mUnit.simulator("channel 17");
    EXPECT_TRUE(shows("#channel", "17")) << pageLog();

    // A long press stores the current channel in preset 2; after a seek a tap brings it back.
    ASSERT_TRUE(mBrowser.press("#preset-2"));
    std::this_thread::sleep_for(std::chrono::milliseconds(1200));
    ASSERT_TRUE(mBrowser.release());
    EXPECT_TRUE(shows("#preset-2 small", "17")) << pageLog();
    ASSERT_TRUE(mBrowser.click("#seek-up"));
    ASSERT_TRUE(shows("#channel", "18")) << pageLog();
    ASSERT_TRUE(mBrowser.click("#preset-2"));
    EXPECT_TRUE(shows("#channel", "17")) << pageLog();

    // Push-to-talk held: the transmitter is keyed and the TX lamp lights; released: back to RX.
    const size_t frames = mUnit.frameMark();
    ASSERT_TRUE(mBrowser.press("#ptt"));
    EXPECT_TRUE(mUnit.waitForFrame("0E 01 01", frames, 5000));
    EXPECT_TRUE(lit("#lamp-tx", true)) << pageLog();
    ASSERT_TRUE(mBrowser.release());
    EXPECT_TRUE(mUnit.waitForFrame("0E 01 00", frames, 5000)) << pageLog();
    EXPECT_TRUE(lit("#lamp-tx", false)) << pageLog();

    // A weather alert on weather channel 4 raises the banner with its frequency.
    mUnit.simulator("sens 180");
    mUnit.simulator("alert 4");
    EXPECT_TRUE(shows("#banner", "false", "hidden")) << pageLog();
    EXPECT_TRUE(shows("#banner-channel", "4")) << pageLog();
    EXPECT_NE(shown("#banner-channel", "textContent").find("162.475 MHz"), std::string::npos);

    // Into the test's root, so a test run leaves the sources alone; CBRADIO_UPDATE_SCREENSHOT=1
    // refreshes the one the README shows.
    const char* update = std::getenv("CBRADIO_UPDATE_SCREENSHOT");
    const std::string shot = update && std::string(update) == "1" ? PANEL_SCREENSHOT : mUnit.path("panel.png");
    EXPECT_TRUE(mBrowser.screenshot(shot)) << mBrowser.error();

    // The service stops: the page says so. It starts again: the page follows the new one.
    ASSERT_TRUE(mUnit.stopDaemon());
    EXPECT_TRUE(overlayShown(true)) << pageLog();
    EXPECT_NE(shown("#offbus-title", "textContent").find("not on the bus"), std::string::npos);
    ASSERT_TRUE(mUnit.startDaemon()) << mUnit.error();
    EXPECT_TRUE(overlayShown(false)) << pageLog();
    // The new service learns the radio's state anew (the simulator may tell it the radio is on);
    // once the page shows that state, the radio is switched on if needed. Channel and squelch are
    // the new service's own (defaults or restored), so only their arrival is checked.
    const auto power = [&] { return shown("#st-power", "textContent"); };
    ASSERT_TRUE(waitUntil([&] { return power() == "on" || power() == "off"; }, 10000, 100)) << pageLog();
    if (power() == "off") {
        ASSERT_TRUE(mBrowser.click("#power"));
    }
    EXPECT_TRUE(waitUntil([&] { return !shown("#channel").empty() && !shown("#squelch").empty(); }, 10000, 100))
        << pageLog();
}
}  // namespace
