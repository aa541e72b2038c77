// cbradio-panel: the CB radio service in a browser. Serves one page that looks like the radio,
// follows the service's signals live and drives its methods; see docs/panel.md.
#include "BusMonitor.h"
#include "CBRadioEnvars.h"
#include "EventHub.h"
#include "PanelBus.h"
#include "PanelServer.h"

#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

namespace
{
volatile std::sig_atomic_t gSignal = 0;

extern "C" void onStopSignal(int sig)
{
    gSignal = sig;
}

const char* const kUsage =
    "usage: cbradio-panel [--port=N] [--listen=ADDRESS] [--assets=DIR] [--call-timeout=MS]\n"
    "\n"
    "Serves a panel for the CB radio service at http://ADDRESS:N/ and prints that address.\n"
    "  --port=N          TCP port (default 8027; 0 picks a free one)\n"
    "  --listen=ADDRESS  address to listen on (default 127.0.0.1, this machine only)\n"
    "  --assets=DIR      the page's files (default: web/ beside the program, or\n"
    "                    ../share/cbradio-panel from its folder)\n"
    "  --call-timeout=MS how long a method call may take (default 5000)\n"
    "The session bus is DBUS_SESSION_BUS_ADDRESS or, unset, the one $CBRADIO_ROOT/tmp/envars.sh\n"
    "names. Ends on SIGINT or SIGTERM (exit 0), or when the bus goes away (exit 1).\n";

bool numberOption(const std::string& arg, const char* name, int low, int high, int& out)
{
    const std::string prefix = std::string(name) + "=";
    if (arg.compare(0, prefix.size(), prefix) != 0)
        return false;
    const std::string value = arg.substr(prefix.size());
    char* end = nullptr;
    const long n = std::strtol(value.c_str(), &end, 10);
    if (value.empty() || *end != '\0' || n < low || n > high) {
        std::fprintf(stderr, "cbradio-panel: %s wants a number from %d to %d\n", name, low, high);
        std::exit(2);
    }
    out = static_cast<int>(n);
    return true;
}

std::string programPath(const char* argv0)
{
    char buf[4096];
    const ssize_t n = readlink("/proc/self/exe", buf, sizeof buf - 1);
    if (n > 0)
        return std::string(buf, static_cast<std::size_t>(n));
    return argv0;
}

// Fills `options` and `assets` from the command line; -1 to go on, else the exit code.
int parseArguments(int argc, char** argv, panel::ServerOptions& options, std::string& assets)
{
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "-h" || arg == "--help") {
            std::fputs(kUsage, stdout);
            return 0;
        }
        if (numberOption(arg, "--port", 0, 65535, options.port) ||
            numberOption(arg, "--call-timeout", 100, 60000, options.callTimeoutMs))
            continue;
        if (arg.compare(0, 9, "--listen=") == 0) {
            options.listenAddress = arg.substr(9);
            continue;
        }
        if (arg.compare(0, 9, "--assets=") == 0) {
            assets = arg.substr(9);
            continue;
        }
        std::fprintf(stderr, "cbradio-panel: unknown argument '%s'\n%s", arg.c_str(), kUsage);
        return 2;
    }
    return -1;
}

void recordStopSignals()
{
    struct sigaction action;
    std::memset(&action, 0, sizeof action);
    action.sa_handler = onStopSignal;
    sigemptyset(&action.sa_mask);
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
    sigaction(SIGHUP, &action, nullptr);
    std::signal(SIGPIPE, SIG_IGN);
}

// Starts the listen-only monitor; without it the page still works, minus what only it sees.
void startMonitor(panel::BusMonitor& monitor, panel::EventHub& hub, const std::string& address)
{
    const std::string why = monitor.start(address);
    hub.publish("monitor", why.empty() ? "{\"available\":true}" : "{\"available\":false}", true);
    if (!why.empty())
        std::fprintf(stderr,
                     "cbradio-panel: no weather alert banner nor receive/transmit "
                     "indicators before the return to idle: the bus refused monitoring (%s)\n",
                     why.c_str());
}

int fail(const std::string& why)
{
    std::fprintf(stderr, "cbradio-panel: %s\n", why.c_str());
    return 1;
}
}  // namespace

int main(int argc, char** argv)
{
    panel::ServerOptions options;
    std::string assets;
    const int parsed = parseArguments(argc, argv, options, assets);
    if (parsed >= 0)
        return parsed;
    options.assetsDir = panel::findAssets(assets, programPath(argv[0]));
    if (options.assetsDir.empty())
        return fail(std::string("the page's files (index.html, ...) are not in ") +
                    (assets.empty() ? "web/ beside the program nor in share/cbradio-panel" : assets.c_str()));
    recordStopSignals();

    std::string refusal;
    const std::string address = CBRadioEnvars::busAddressForTool(refusal);
    if (!refusal.empty())
        std::fprintf(stderr, "cbradio-panel: %s\n", refusal.c_str());
    if (address.empty())
        return fail("no session bus: DBUS_SESSION_BUS_ADDRESS is not set and $CBRADIO_ROOT/tmp/envars.sh names none");

    panel::EventHub hub;
    panel::PanelBus bus(hub);
    std::string why = bus.start();
    if (!why.empty())
        return fail(why);
    panel::BusMonitor monitor(hub);
    startMonitor(monitor, hub, address);

    panel::PanelServer server(hub, bus);
    why = server.bind(options);
    if (!why.empty())
        return fail(why);
    const bool v6 = options.listenAddress.find(':') != std::string::npos;
    std::printf("cbradio-panel: http://%s%s%s:%d/\n", v6 ? "[" : "", options.listenAddress.c_str(), v6 ? "]" : "",
                server.port());
    std::fflush(stdout);

    std::thread listener([&server] { server.listen(); });
    while (gSignal == 0 && !bus.lost() && !monitor.lost())
        usleep(100 * 1000);
    const bool busLost = gSignal == 0;
    if (busLost)
        std::fprintf(stderr, "cbradio-panel: the session bus went away\n");

    // Waiting calls and event streams give up first, so that the server's workers end promptly;
    // the bus connection closes only once no worker can use it any more.
    bus.refuseCalls();
    hub.stop();
    server.stop();
    listener.join();
    bus.stop();
    monitor.stop();
    return busLost ? 1 : 0;
}
