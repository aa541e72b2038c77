// tracesrv: a trace server for watching and steering traced processes on Linux.
// See docs/tracesrv.md.
#include "TraceServer.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <unistd.h>

namespace
{
void usage(FILE* to)
{
    std::fprintf(to, "usage: tracesrv [--version=X.Y.Z] [--cmd \"COMMAND\"]... [--exit-after=SECONDS] [--log=FILE]\n"
                     "                [--no-stdin]\n"
                     "Serves /dev/mv2trace/ under $CBRADIO_ROOT. Type help at the prompt for the commands.\n");
}

void onSignal(int)
{
    TraceServer::requestStop();
}

bool parseVersion(const char* text, uint16_t out[3])
{
    unsigned a, b, c;
    char extra;
    if (std::sscanf(text, "%u.%u.%u%c", &a, &b, &c, &extra) != 3 || a > 0xFFFF || b > 0xFFFF || c > 0xFFFF)
        return false;
    out[0] = static_cast<uint16_t>(a);
    out[1] = static_cast<uint16_t>(b);
    out[2] = static_cast<uint16_t>(c);
    return true;
}
}

int main(int argc, char** argv)
{
    TraceServer::Options options;
    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i];
        if (a.compare(0, 10, "--version=") == 0) {
            if (!parseVersion(a.c_str() + 10, options.version)) {
                std::fprintf(stderr, "tracesrv: bad version '%s'\n", a.c_str() + 10);
                return 2;
            }
        } else if (a == "--cmd" && i + 1 < argc)
            options.script.push_back(argv[++i]);
        else if (a.compare(0, 6, "--cmd=") == 0)
            options.script.push_back(a.substr(6));
        else if (a.compare(0, 13, "--exit-after=") == 0) {
            char* end = nullptr;
            long s = std::strtol(a.c_str() + 13, &end, 10);
            if (*end || s < 0) {
                std::fprintf(stderr, "tracesrv: bad time '%s'\n", a.c_str() + 13);
                return 2;
            }
            options.exitAfterSeconds = static_cast<int>(s);
        } else if (a.compare(0, 6, "--log=") == 0)
            options.logFile = a.substr(6);
        else if (a == "--no-stdin")
            options.readStdin = false;
        else if (a == "--help" || a == "-h") {
            usage(stdout);
            return 0;
        } else {
            usage(stderr);
            return 2;
        }
    }
    struct sigaction sa;
    std::memset(&sa, 0, sizeof sa);
    sa.sa_handler = onSignal;
    sigaction(SIGINT, &sa, nullptr);
    sigaction(SIGTERM, &sa, nullptr);
    std::signal(SIGPIPE, SIG_IGN);

    TraceServer server(options);
    return server.run();
}
