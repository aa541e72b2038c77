#include "WebDriver.h"

#include <httplib.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <thread>

const char* const WebDriver::kBrowser = "/usr/bin/chromium";
const char* const WebDriver::kDriver = "/usr/bin/chromedriver";

namespace
{
const char* const kElementKey = "element-6066-11e4-a52e-4f735466cecf";

int freeLoopbackPort()
{
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof addr;
    int port = 0;
    if (::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0 &&
        ::getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len) == 0)
        port = ntohs(addr.sin_port);
    ::close(fd);
    return port;
}

std::string compact(const Json::Value& value)
{
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    return Json::writeString(builder, value);
}

std::string base64Decode(const std::string& in)
{
    auto value = [](char c) -> int {
        if (c >= 'A' && c <= 'Z') return c - 'A';
        if (c >= 'a' && c <= 'z') return c - 'a' + 26;
        if (c >= '0' && c <= '9') return c - '0' + 52;
        if (c == '+') return 62;
        if (c == '/') return 63;
        return -1;
    };
    std::string out;
    int bits = 0;
    unsigned buffer = 0;
    for (char c : in) {
        const int v = value(c);
        if (v < 0)
            continue;
        buffer = (buffer << 6) | static_cast<unsigned>(v);
        bits += 6;
        if (bits >= 8) {
            bits -= 8;
            out.push_back(static_cast<char>((buffer >> bits) & 0xFF));
        }
    }
    return out;
}

Json::Value pointer(const Json::Value& steps)
{
    Json::Value source;
    source["type"] = "pointer";
    source["id"] = "mouse";
    source["parameters"]["pointerType"] = "mouse";
    source["actions"] = steps;
    Json::Value all;
    all["actions"].append(source);
    return all;
}
}  // namespace

std::string WebDriver::missingPrograms()
{
    std::string missing;
    for (const char* program : {kBrowser, kDriver})
        if (::access(program, X_OK) != 0)
            missing += std::string(missing.empty() ? "" : " and ") + program;
    return missing;
}

WebDriver::~WebDriver()
{
    quit();
}

bool WebDriver::start(const std::string& workDir, int width, int height)
{
    mPort = freeLoopbackPort();
    ChildProcess::Io io;
    io.outPath = workDir + "/chromedriver.out";
    io.errPath = workDir + "/chromedriver.err";
    if (!mDriver.start({kDriver, "--port=" + std::to_string(mPort)}, ChildProcess::environmentWith({}), io)) {
        mError = "cannot start chromedriver";
        return false;
    }
    const bool ready = waitFor([&] {
        bool ok = false;
        Json::Value status = request("GET", "/status", Json::Value(), &ok);
        return ok && status["value"]["ready"].asBool();
    });
    if (!ready) {
        mError = "chromedriver did not get ready on port " + std::to_string(mPort);
        return false;
    }
    Json::Value caps;
    Json::Value& chrome = caps["capabilities"]["alwaysMatch"]["goog:chromeOptions"];
    chrome["binary"] = kBrowser;
    for (const std::string& arg :
         {std::string("--headless"), std::string("--no-sandbox"), std::string("--disable-gpu"),
          std::string("--disable-quic"), std::string("--no-first-run"),
          std::string("--disable-background-networking"), std::string("--disable-component-update"),
          std::string("--disable-sync"), std::string("--disable-dev-shm-usage"),
          "--user-data-dir=" + workDir + "/chromium-profile",
          "--window-size=" + std::to_string(width) + "," + std::to_string(height)})
        chrome["args"].append(arg);
    bool ok = false;
    Json::Value session = request("POST", "/session", caps, &ok);
    if (!ok || !session["value"]["sessionId"].isString()) {
        mError = "no browser session: " + compact(session);
        return false;
    }
    mSession = session["value"]["sessionId"].asString();
    return true;
}

void WebDriver::quit()
{
    if (!mSession.empty()) {
        request("DELETE", "/session/" + mSession, Json::Value());
        mSession.clear();
    }
    if (mDriver.running())
        mDriver.stop(2000);
}

Json::Value WebDriver::request(const std::string& method, const std::string& path,
                               const Json::Value& body, bool* ok)
{
    httplib::Client client("127.0.0.1", mPort);
    client.set_connection_timeout(2, 0);
    client.set_read_timeout(30, 0);
    httplib::Result res = method == "GET"      ? client.Get(path.c_str())
                          : method == "DELETE" ? client.Delete(path.c_str())
                                               : client.Post(path.c_str(), compact(body.isNull() ? Json::Value(Json::objectValue) : body),
                                                             "application/json");
    Json::Value value;
    if (ok)
        *ok = false;
    if (!res) {
        mError = method + " " + path + ": " + httplib::to_string(res.error());
        return value;
    }
    Json::CharReaderBuilder builder;
    std::string errors;
    std::istringstream in(res->body);
    Json::parseFromStream(builder, in, &value, &errors);
    if (res->status != 200) {
        mError = method + " " + path + ": HTTP " + std::to_string(res->status) + " " + res->body.substr(0, 300);
        return value;
    }
    if (ok)
        *ok = true;
    return value;
}

bool WebDriver::open(const std::string& url)
{
    Json::Value body;
    body["url"] = url;
    bool ok = false;
    request("POST", "/session/" + mSession + "/url", body, &ok);
    return ok;
}

Json::Value WebDriver::script(const std::string& text)
{
    Json::Value body;
    body["script"] = text;
    body["args"] = Json::Value(Json::arrayValue);
    bool ok = false;
    Json::Value answer = request("POST", "/session/" + mSession + "/execute/sync", body, &ok);
    return ok ? answer["value"] : Json::Value();
}

std::string WebDriver::element(const std::string& css)
{
    Json::Value body;
    body["using"] = "css selector";
    body["value"] = css;
    bool ok = false;
    Json::Value answer = request("POST", "/session/" + mSession + "/element", body, &ok);
    return ok ? answer["value"][kElementKey].asString() : "";
}

bool WebDriver::click(const std::string& css)
{
    const std::string id = element(css);
    bool ok = false;
    if (!id.empty())
        request("POST", "/session/" + mSession + "/element/" + id + "/click", Json::Value(), &ok);
    return ok;
}

bool WebDriver::actions(const Json::Value& steps)
{
    bool ok = false;
    request("POST", "/session/" + mSession + "/actions", pointer(steps), &ok);
    return ok;
}

bool WebDriver::press(const std::string& css)
{
    const std::string id = element(css);
    if (id.empty())
        return false;
    Json::Value steps(Json::arrayValue);
    Json::Value move;
    move["type"] = "pointerMove";
    move["duration"] = 0;
    move["origin"][kElementKey] = id;
    move["x"] = 0;
    move["y"] = 0;
    steps.append(move);
    Json::Value down;
    down["type"] = "pointerDown";
    down["button"] = 0;
    steps.append(down);
    return actions(steps);
}

bool WebDriver::release()
{
    Json::Value steps(Json::arrayValue);
    Json::Value up;
    up["type"] = "pointerUp";
    up["button"] = 0;
    steps.append(up);
    return actions(steps);
}

bool WebDriver::longPress(const std::string& css, int ms)
{
    if (!press(css))
        return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(ms));
    return release();
}

bool WebDriver::screenshot(const std::string& pngPath)
{
    bool ok = false;
    Json::Value answer = request("GET", "/session/" + mSession + "/screenshot", Json::Value(), &ok);
    if (!ok || !answer["value"].isString())
        return false;
    std::ofstream(pngPath, std::ios::binary) << base64Decode(answer["value"].asString());
    return true;
}

bool WebDriver::waitFor(const std::function<bool()>& condition, int timeoutMs)
{
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= end)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    return true;
}
