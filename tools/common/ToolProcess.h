// ToolProcess: the process set-up the simulators have in common.
#ifndef TOOLPROCESS_H
#define TOOLPROCESS_H

#include <cstdio>
#include <string>

// SIGINT and SIGTERM call `onStop` (which must be async-signal-safe); SIGPIPE is ignored so a
// peer that went away shows up as a failed write instead of ending the tool.
void catchStopSignals(void (*onStop)(int));

// Opens the tool's log file for writing. On failure prints "TOOL: cannot write PATH: REASON" to
// standard error and returns nullptr.
FILE* openLogFile(const char* tool, const std::string& path);

// For an argument none of the tool's options took: "--help" or "-h" prints the usage and gives
// exit status 0; anything else is reported on standard error as
// "TOOL: unknown argument 'ARG' (see --help)" and gives 2.
int refuseArgument(const char* tool, const std::string& arg, void (*usage)());

// The end of a tool: closes its log file (when open), flushes standard output and ends the
// process with `status` at once. The command thread may still sit in a read of standard input,
// so it is not waited for.
[[noreturn]] void endTool(FILE* logFile, int status);

#endif
