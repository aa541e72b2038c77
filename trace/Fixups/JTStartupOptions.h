// JTStartupOptions: the trace framework's options on the process's own command line.
//
//   "--nobreak"       isBreakEnabled() becomes false (default true)
//   "--memtrace=<n>"  n read with "%u": 0 turns the memory trace off, 1 on; other values and
//                     unreadable numbers are ignored (default 1); the last valid one counts
//   "--tp=", "--bp"   not handled here: the trace helper picks them up from getArgc()/getArgv()
// getCommandLine() is the arguments after the program name joined by single blanks ("" if none).
//
// The options are read once from /proc/self/cmdline, before main() or on the first call,
// whichever comes first. The allocator asks for the memory trace level, so this module never uses
// operator new (its storage comes from malloc and is kept for the life of the process). When the
// command line cannot be read the defaults apply and getArgc() is 0.
//
// Thread safety: any thread; the first reading is done once (the result is the same whichever
// thread does it).
#ifndef JTSTARTUPOPTIONS_H
#define JTSTARTUPOPTIONS_H

#include <cstddef>

class JTStartupOptions
{
public:
    static unsigned int getMemoryTraceLevel();
    static bool isBreakEnabled();
    static const char* getCommandLine();
    static int getArgc();
    static char** getArgv();

    struct SOptions
    {
        unsigned int memoryTraceLevel;
        bool breakEnabled;
    };

    // The parser behind the getters, for any argument vector (argv[0] is the program name and is
    // skipped; null entries are ignored). Starts from the defaults.
    static SOptions parse(int argc, const char* const* argv);
    // Writes argv[1..] joined by blanks to out (cut to outSize - 1 bytes, always terminated when
    // outSize > 0). Returns the length of the full text.
    static size_t joinArguments(int argc, const char* const* argv, char* out, size_t outSize);
};

#endif
