// The browser panel in a real headless Chromium, against a simulated head unit: a private bus,
// v850sim, peersim for the peer services, cbradiod and cbradio-panel, all real processes. The test
// works the page as a person would (clicks, holds) and reads what it shows; the radio's answers
// come from the simulator. It also writes docs/panel.png, the screenshot the README shows.
#include "HeadUnit.h"
#include "WebDriver.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

namespace
{
std::string quoted(const std::string& css)
{
    return "'" + css + "'";
}

class PanelBrowser : public ::testing::Test
{
protected:
    void SetUp() override
    {
        const std::string missing = WebDriver::missingPrograms();
        if (!missing.empty())
            GTEST_SKIP() << "no browser to test the panel with: " << missing
                         << " not installed (bash scripts/setup.sh installs chromium and chromium-driver)";

        HeadUnit::Options options;
        options.traceSettings = "JTTracePersistence 1.1.0\n* 62 8\n";
        options.beforeDaemon = [this](HeadUnit& unit) {
            // The peers answer at once, so the read-out and the audio sources follow promptly.
            unit.spawn({HeadUnit::buildDir() + "/tools/peersim/peersim", "--no-stdin",
                        "--log=" + unit.path("peersim.log"), "--cmd", "delay all 0"},
                       "peersim");
            unit.spawn({HeadUnit::buildDir() + "/tools/cbradio-panel/cbradio-panel", "--port=0"}, "panel");
            const bool up = HeadUnit::waitUntil(
                [&] {
                    return HeadUnit::readFile(unit.path("peersim.log")).find("# ready") != std::string::npos &&
                           HeadUnit::readFile(unit.path("panel.out")).find("http://") != std::string::npos;
                },
                10000);
            const std::string out = HeadUnit::readFile(unit.path("panel.out"));
            mUrl = out.substr(out.find("http://"));
            mUrl = mUrl.substr(0, mUrl.find_first_of(" \n"));
            return up;
        };
        ASSERT_TRUE(mUnit.start(options)) << mUnit.error();
        ASSERT_TRUE(mBrowser.start(mUnit.root())) << mBrowser.error();
        ASSERT_TRUE(mBrowser.open(mUrl)) << mBrowser.error();
    }

    // What the page shows in `attribute` of the element `css` ("" when absent).
    std::string shown(const std::string& css, const std::string& what = "dataset.value")
    {
        Json::Value v = mBrowser.script("const e = document.querySelector(" + quoted(css) +
                                        "); return e ? String(e." + what + ") : '';");
        return v.isString() ? v.asString() : "";
    }
    bool shows(const std::string& css, const std::string& value, const std::string& what = "dataset.value",
               int timeoutMs = 10000)
    {
        return WebDriver::waitFor([&] { return shown(css, what) == value; }, timeoutMs);
    }
    bool lit(const std::string& css, bool on)
    {
        return shows(css, on ? "true" : "false", "classList.contains('on')");
    }
    bool overlayShown(bool visible) { return shows("#offbus", visible ? "false" : "true", "hidden"); }

    std::string pageLog() { return shown("#log", "innerText"); }

    HeadUnit mUnit;
    WebDriver mBrowser;
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
    ASSERT_TRUE(mBrowser.longPress("#preset-2", 1200));
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

    // Into the build tree, so a test run leaves the sources alone; CBRADIO_UPDATE_SCREENSHOT=1
    // refreshes the one the README shows.
    const char* update = std::getenv("CBRADIO_UPDATE_SCREENSHOT");
    const std::string shot = update && std::string(update) == "1" ? PANEL_SCREENSHOT
                                                                   : mUnit.path("panel.png");
    EXPECT_TRUE(mBrowser.screenshot(shot)) << mBrowser.error();

    // The service stops: the page says so. It starts again: the page follows the new one.
    ASSERT_TRUE(mUnit.stopDaemon());
    EXPECT_TRUE(overlayShown(true)) << pageLog();
    EXPECT_NE(shown("#offbus-title", "textContent").find("not on the bus"), std::string::npos);

    ChildProcess again;
    ChildProcess::Io io;
    io.outPath = mUnit.path("daemon2.out");
    io.errPath = mUnit.path("daemon2.err");
    ASSERT_TRUE(again.start({HeadUnit::buildDir() + "/cbradio/cbradiod", "--tp=" + mUnit.path("trace.tp")},
                            ChildProcess::environmentWith({{"CBRADIO_ROOT", mUnit.root()}, {"CBRADIO_FOREGROUND", "1"}},
                                                          {"DBUS_SESSION_BUS_ADDRESS", "DBUS_SESSION_BUS_PID"}),
                            io));
    EXPECT_TRUE(overlayShown(false)) << pageLog();
    // The new service learns the radio's state anew (the simulator may tell it the radio is on);
    // once the page shows that state, the radio is switched on if needed. Channel and squelch are
    // the new service's own (defaults or restored), so only their arrival is checked.
    ASSERT_TRUE(WebDriver::waitFor([&] {
        const std::string power = shown("#st-power", "textContent");
        return power == "on" || power == "off";
    })) << pageLog();
    if (shown("#st-power", "textContent") == "off") {
        ASSERT_TRUE(mBrowser.click("#power"));
    }
    EXPECT_TRUE(WebDriver::waitFor([&] { return !shown("#channel").empty() && !shown("#squelch").empty(); }))
        << pageLog();
    again.stop(3000);
}
}  // namespace
