#include "CommandInput.h"

#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>
#include <unistd.h>

bool takeOptionValue(const std::string& arg, const char* option, std::string& value)
{
    const size_t n = std::strlen(option);
    if (arg.compare(0, n, option) != 0 || arg.size() <= n || arg[n] != '=')
        return false;
    value = arg.substr(n + 1);
    return true;
}

bool CommandInput::takeOption(int argc, char** argv, int& i)
{
    const std::string arg = argv[i];
    std::string value;
    if ((arg == "--cmd" || arg == "--script") && i + 1 < argc)
        mSources.push_back(Source{arg == "--script", argv[++i]});
    else if (takeOptionValue(arg, "--cmd", value))
        mSources.push_back(Source{false, value});
    else if (takeOptionValue(arg, "--script", value))
        mSources.push_back(Source{true, value});
    else if (arg == "--no-stdin")
        mReadStdin = false;
    else
        return false;
    return true;
}

bool CommandInput::runScript(const std::string& path, const Executor& execute, const Notifier& note) const
{
    std::ifstream script(path);
    if (!script) {
        note("error: cannot read script " + path);
        return true;
    }
    for (std::string line; std::getline(script, line);)
        if (!execute(line))
            return false;
    return true;
}

void CommandInput::run(const Executor& execute, const Notifier& note, const char* prompt) const
{
    for (const Source& s : mSources) {
        const bool goOn = s.isScript ? runScript(s.text, execute, note) : execute(s.text);
        if (!goOn)
            return;
    }
    if (!mReadStdin)
        return;
    const bool showPrompt = ::isatty(STDIN_FILENO);
    for (std::string line;;) {
        if (showPrompt) {
            std::fputs(prompt, stdout);
            std::fflush(stdout);
        }
        if (!std::getline(std::cin, line) || !execute(line))
            return;
    }
}
