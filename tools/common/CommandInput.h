// CommandInput: where an interactive tool's command lines come from.
//
// "--cmd COMMAND" and "--script FILE" (also "--cmd=COMMAND", "--script=FILE") run in the order
// they stand on the command line, then standard input is read line by line unless
// "--no-stdin" was given. On a terminal a prompt is shown before each line read from standard
// input. A script that cannot be read is reported as "error: cannot read script FILE" and
// skipped; the sources after it still run.
//
// run() calls back on the thread that calls it. It reads standard input with blocking reads, so
// tools run it on a thread of its own that they leave behind when they end.
#ifndef COMMANDINPUT_H
#define COMMANDINPUT_H

#include <functional>
#include <string>
#include <vector>

class CommandInput
{
public:
    // False from an executor means: stop reading commands.
    using Executor = std::function<bool(const std::string& line)>;
    using Notifier = std::function<void(const std::string& text)>;

    // Takes argv[i] when it is one of the options above, with its value (i then points at the
    // value). False when argv[i] is not one of them, or is a two-word option without its value.
    bool takeOption(int argc, char** argv, int& i);

    // Feeds every line to `execute` until it returns false or the sources are used up.
    void run(const Executor& execute, const Notifier& note, const char* prompt) const;

private:
    struct Source
    {
        bool isScript;
        std::string text;
    };

    bool runScript(const std::string& path, const Executor& execute, const Notifier& note) const;

    std::vector<Source> mSources;
    bool mReadStdin = true;
};

// True when `arg` is "OPTION=VALUE" for the given option; VALUE (possibly empty) goes to `value`.
bool takeOptionValue(const std::string& arg, const char* option, std::string& value);

#endif
