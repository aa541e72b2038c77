// WebDriver: a headless Chromium driven through chromedriver's W3C WebDriver protocol, for
// end-to-end tests of pages. start() launches chromedriver on a free loopback port and opens a
// browser session with a fresh profile; the destructor ends the session and chromedriver.
// Every call has a bounded time-out; failures are reported through error(), never thrown.
#ifndef WEBDRIVER_H
#define WEBDRIVER_H

#include "ChildProcess.h"

#include <json/json.h>

#include <functional>
#include <memory>
#include <string>

class WebDriver
{
public:
    // Where the browser and its driver are expected (Debian's chromium and chromium-driver).
    static const char* const kBrowser;
    static const char* const kDriver;
    // "" when both are installed, else which one is missing.
    static std::string missingPrograms();

    WebDriver() = default;
    ~WebDriver();
    WebDriver(const WebDriver&) = delete;
    WebDriver& operator=(const WebDriver&) = delete;

    // `workDir` takes the browser profile and chromedriver's log.
    bool start(const std::string& workDir, int width = 1360, int height = 1000);
    void quit();
    const std::string& error() const { return mError; }

    bool open(const std::string& url);
    // Runs `body` (a function body, e.g. "return document.title;") in the page.
    Json::Value script(const std::string& body);
    bool click(const std::string& css);
    // Presses the left button on the element and keeps it down until release().
    bool press(const std::string& css);
    bool release();
    bool longPress(const std::string& css, int ms);
    bool screenshot(const std::string& pngPath);

    // Polls `condition` every 100 ms for up to timeoutMs.
    static bool waitFor(const std::function<bool()>& condition, int timeoutMs = 10000);

private:
    Json::Value request(const std::string& method, const std::string& path, const Json::Value& body,
                        bool* ok = nullptr);
    std::string element(const std::string& css);
    bool actions(const Json::Value& steps);

    ChildProcess mDriver;
    int mPort = 0;
    std::string mSession;
    std::string mError;
};

#endif
