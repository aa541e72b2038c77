#include "ToolProcess.h"

#include <cerrno>
#include <csignal>
#include <cstring>

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
