#include "PanelServer.h"

#include <httplib.h>
#include <json/json.h>
#include <unistd.h>

#include <fstream>
#include <sstream>

namespace panel
{

namespace
{
const struct
{
    const char* path;
    const char* file;
    const char* type;
} kAssets[] = {
    {"/", "index.html", "text/html; charset=utf-8"},
    {"/panel.css", "panel.css", "text/css; charset=utf-8"},
    {"/panel.js", "panel.js", "text/javascript; charset=utf-8"},
    {"/favicon.svg", "favicon.svg", "image/svg+xml"},
};

bool readWhole(const std::string& path, std::string& out)
{
    std::ifstream in(path, std::ios::binary);
    if (!in)
        return false;
    std::ostringstream text;
    text << in.rdbuf();
    out = text.str();
    return true;
}

void answerError(httplib::Response& res, int status, const std::string& error, const std::string& message)
{
    Json::Value body;
    body["error"] = error;
    body["message"] = message;
    res.status = status;
    res.set_content(compactJson(body), "application/json");
}

bool isDirWithIndex(const std::string& dir)
{
    return !dir.empty() && access((dir + "/index.html").c_str(), R_OK) == 0;
}
}  // namespace

std::string findAssets(const std::string& given, const std::string& programPath)
{
    if (!given.empty())
        return isDirWithIndex(given) ? given : "";
    const std::size_t slash = programPath.rfind('/');
    const std::string programDir = slash == std::string::npos ? "." : programPath.substr(0, slash);
    for (const std::string& dir : {programDir + "/web", programDir + "/../share/cbradio-panel"})
        if (isDirWithIndex(dir))
            return dir;
    return "";
}

PanelServer::PanelServer(EventHub& hub, PanelBus& bus) : mHub(hub), mBus(bus) {}

PanelServer::~PanelServer() = default;

std::string PanelServer::bind(const ServerOptions& options)
{
    mOptions = options;
    for (const auto& asset : kAssets) {
        std::string content;
        if (!readWhole(options.assetsDir + "/" + asset.file, content))
            return "cannot read " + options.assetsDir + "/" + asset.file;
        mAssets[asset.path] = {asset.type, content};
    }

    mServer.reset(new httplib::Server);
    // Event streams hold a worker each; leave room for the page's own requests beside them.
    mServer->new_task_queue = [] { return new httplib::ThreadPool(kMaxStreams + 8); };
    mServer->set_keep_alive_timeout(1);
    mServer->set_read_timeout(2, 0);
    mServer->set_write_timeout(2, 0);
    mServer->set_payload_max_length(kMaxBodyBytes);
    mServer->set_default_headers({
        {"Cache-Control", "no-store"},
        {"X-Content-Type-Options", "nosniff"},
        {"X-Frame-Options", "DENY"},
        {"Referrer-Policy", "no-referrer"},
        {"Content-Security-Policy", "default-src 'self'; img-src 'self' data:; style-src 'self'; script-src 'self'; "
                                    "connect-src 'self'; frame-ancestors 'none'"},
    });
    routes();

    if (options.port == 0) {
        mPort = mServer->bind_to_any_port(options.listenAddress);
        if (mPort < 0)
            return "cannot listen on " + options.listenAddress;
    } else {
        if (!mServer->bind_to_port(options.listenAddress, options.port))
            return "cannot listen on " + options.listenAddress + ":" + std::to_string(options.port) +
                   " (in use? choose another with --port)";
        mPort = options.port;
    }
    const std::string port = ":" + std::to_string(mPort);
    if (options.listenAddress != "0.0.0.0" && options.listenAddress != "::") {
        mAllowedHosts = {options.listenAddress + port, "localhost" + port};
        if (options.listenAddress == "127.0.0.1")
            mAllowedHosts.push_back("[::1]" + port);
    }
    return "";
}

bool PanelServer::listen()
{
    return mServer && mServer->listen_after_bind();
}

void PanelServer::stop()
{
    mHub.stop();
    if (mServer)
        mServer->stop();
}

void PanelServer::routes()
{
    guardRequests();
    serveAssets();
    serveCalls();
    serveEvents();
}

void PanelServer::guardRequests()
{
    httplib::Server& svr = *mServer;
    svr.set_pre_routing_handler([this](const httplib::Request& req, httplib::Response& res) {
        const std::string host = req.get_header_value("Host");
        if (!isAllowedHost(host, mAllowedHosts)) {
            answerError(res, 403, "host", "requests must name this panel's address, not '" + host.substr(0, 64) + "'");
            return httplib::Server::HandlerResponse::Handled;
        }
        if (!isSameOrigin(req.get_header_value("Origin"), host)) {
            answerError(res, 403, "cross-origin", "requests from other sites' pages are refused");
            return httplib::Server::HandlerResponse::Handled;
        }
        return httplib::Server::HandlerResponse::Unhandled;
    });
    svr.set_error_handler([](const httplib::Request&, httplib::Response& res) {
        if (!res.body.empty())
            return;
        if (res.status == 413)
            answerError(res, 413, "too-large",
                        "the argument is larger than " + std::to_string(kMaxBodyBytes) + " bytes");
        else if (res.status == 404)
            answerError(res, 404, "http", "no such page");
        else
            answerError(res, res.status, "http",
                        "the request was not understood (HTTP " + std::to_string(res.status) + ")");
    });
}

void PanelServer::serveAssets()
{
    for (const auto& asset : kAssets) {
        const std::string path = asset.path;
        mServer->Get(path, [this, path](const httplib::Request&, httplib::Response& res) {
            const auto& entry = mAssets.at(path);
            res.set_content(entry.second, entry.first.c_str());
        });
    }
}

void PanelServer::serveCalls()
{
    mServer->Post(R"(/api/call/([A-Za-z0-9_]{1,64}))", [this](const httplib::Request& req, httplib::Response& res) {
        CallRequest call;
        if (Refusal refusal = parseCall(req.matches[1], req.body, call)) {
            answerError(res, refusal.httpStatus, "refused", refusal.message);
            return;
        }
        HttpAnswer answer = mBus.call(call, std::chrono::milliseconds(mOptions.callTimeoutMs));
        res.status = answer.status;
        res.set_content(answer.json, "application/json");
    });
}

// One browser's place in the hub's event list, kept between the chunks of its stream.
struct PanelServer::EventStream
{
    bool started = false;
    std::uint64_t cursor = 0;
    std::chrono::steady_clock::time_point lastWrite;
};

void PanelServer::serveEvents()
{
    mServer->Get("/api/events", [this](const httplib::Request&, httplib::Response& res) {
        if (mStreams.fetch_add(1) >= kMaxStreams) {
            mStreams.fetch_sub(1);
            answerError(res, 503, "busy", "too many event streams are open");
            return;
        }
        auto stream = std::make_shared<EventStream>();
        res.set_chunked_content_provider(
            "text/event-stream",
            [this, stream](std::size_t, httplib::DataSink& sink) { return nextEvents(*stream, sink); },
            [this](bool) { mStreams.fetch_sub(1); });
    });
}

// The first chunk replays the sticky events; later ones wait up to 250 ms for news, so a closed
// browser or a stopping server is noticed within that time.
bool PanelServer::nextEvents(EventStream& stream, httplib::DataSink& sink)
{
    std::string out;
    if (!stream.started) {
        stream.started = true;
        std::vector<Event> sticky;
        stream.cursor = mHub.open(sticky);
        out = "retry: 1000\n\n";
        for (const Event& e : sticky)
            out += toSse(e);
    } else {
        std::uint64_t missed = 0;
        for (const Event& e : mHub.next(stream.cursor, std::chrono::milliseconds(250), missed))
            out += toSse(e);
        if (missed)
            out = "event: missed\ndata: {\"count\":" + std::to_string(missed) + "}\n\n" + out;
    }
    if (mHub.stopped()) {
        sink.done();
        return true;
    }
    const auto now = std::chrono::steady_clock::now();
    if (out.empty() && now - stream.lastWrite > std::chrono::seconds(10))
        out = ": keep-alive\n\n";
    if (out.empty())
        return sink.is_writable();
    stream.lastWrite = now;
    return sink.write(out.data(), out.size());
}

}  // namespace panel
