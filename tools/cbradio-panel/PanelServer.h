// PanelServer: the panel's HTTP side.
//
//   GET  /, /panel.css, /panel.js, /favicon.svg   the page and its assets (read at start)
//   POST /api/call/<method>                        forwards one of the service's methods, the body
//                                                  being its JSON argument (PanelRequest, PanelBus)
//   GET  /api/events                               server-sent events from the hub
//
// Every request must name an allowed host (the listen address or a loopback name with the port)
// and, when it carries an Origin, come from the panel's own origin; other requests get 403. Bodies
// over PanelRequest's limit get 413. Answers are JSON ({"error","message"} on failure) with
// headers that keep the page from being framed or fed foreign scripts.
//
// listen() runs the server on the calling thread until stop() (from any thread). Event streams
// check every 250 ms whether their browser is still there and the server still running; idle
// connections are closed after one second, so stop() is over within about a second.
#ifndef PANELSERVER_H
#define PANELSERVER_H

#include "EventHub.h"
#include "PanelBus.h"

#include <atomic>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace httplib
{
class Server;
class DataSink;
}

namespace panel
{

struct ServerOptions
{
    std::string listenAddress = "127.0.0.1";
    int port = 8027;  // 0: any free port
    std::string assetsDir;
    int callTimeoutMs = 5000;
};

class PanelServer
{
public:
    static const int kMaxStreams = 8;

    PanelServer(EventHub& hub, PanelBus& bus);
    ~PanelServer();
    PanelServer(const PanelServer&) = delete;
    PanelServer& operator=(const PanelServer&) = delete;

    // Reads the assets and binds the socket; "" on success, else why not. port() is then known.
    std::string bind(const ServerOptions& options);
    int port() const { return mPort; }
    bool listen();
    void stop();

private:
    struct EventStream;

    void routes();
    void guardRequests();
    void serveAssets();
    void serveCalls();
    void serveEvents();
    bool nextEvents(EventStream& stream, httplib::DataSink& sink);

    EventHub& mHub;
    PanelBus& mBus;
    ServerOptions mOptions;
    std::unique_ptr<httplib::Server> mServer;
    std::map<std::string, std::pair<std::string, std::string>> mAssets;  // path -> type, content
    std::vector<std::string> mAllowedHosts;
    std::atomic<int> mStreams{0};
    int mPort = 0;
};

// Where the page's files are: `given` when not empty, else web/ next to the program (build tree),
// else ../share/cbradio-panel from the program's folder (installed). "" when none holds index.html.
std::string findAssets(const std::string& given, const std::string& programPath);

}  // namespace panel

#endif
