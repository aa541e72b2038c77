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

#endif
