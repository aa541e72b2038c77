#include "ToolProcess.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <unistd.h>

void catchStopSignals(void (*onStop)(int))
{
    struct sigaction sa;
    std::memset(&sa, 0, sizeof(sa));
    sa.sa_handler = onStop;
    ::sigaction(SIGINT, &sa, nullptr);
    ::sigaction(SIGTERM, &sa, nullptr);
    ::signal(SIGPIPE, SIG_IGN);
}

FILE* openLogFile(const char* tool, const std::string& path)
{
    FILE* file = std::fopen(path.c_str(), "w");
    if (file == nullptr)
        std::fprintf(stderr, "%s: cannot write %s: %s\n", tool, path.c_str(), std::strerror(errno));
    return file;
}

int refuseArgument(const char* tool, const std::string& arg, void (*usage)())
{
    if (arg == "--help" || arg == "-h") {
        usage();
        return 0;
    }
    std::fprintf(stderr, "%s: unknown argument '%s' (see --help)\n", tool, arg.c_str());
    return 2;
}

void endTool(FILE* logFile, int status)
{
    if (logFile)
        std::fclose(logFile);
    std::fflush(stdout);
    ::_exit(status);
}
