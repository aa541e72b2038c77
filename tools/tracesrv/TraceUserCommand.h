// TraceUserCommand: turns a line the user types (or gives with --cmd) into trace commands.
//
// Scopes and callbacks can be named by index, by index range ("3-7") or by name (a scope name
// prefix, "*" for all; a callback's exact name). Names need the process's lists; when they are
// not known yet the result asks the caller to fetch them (NEEDS_SCOPES / NEEDS_CALLBACKS) and to
// translate the line again afterwards. Pure logic, no I/O.
#ifndef TRACEUSERCOMMAND_H
#define TRACEUSERCOMMAND_H

#include "TraceProtocol.h"
#include "TraceSession.h"

#include <string>
#include <vector>

namespace TraceUserCommand
{
struct Action
{
    enum Kind { EMPTY, SEND, HELP, QUIT, WAIT, USE, PROCESSES, NEEDS_PROCESS, NEEDS_SCOPES, NEEDS_CALLBACKS, ERROR };
    Kind kind = EMPTY;
    std::vector<TraceProtocol::Bytes> commands;  // SEND: in order
    TraceSession::Await await = TraceSession::Await::NOTHING;
    uint16_t callId = 0;
    uint16_t callbackIndex = 0;
    unsigned waitMs = 0;  // WAIT
    std::string text;     // ERROR: the reason; USE: the process name
};

// Translates one line for the given process (null when none is connected: commands for a
// process then give NEEDS_PROCESS).
Action translate(const std::string& line, TraceSession* session);

// Splits a line at blanks; double quotes group words, a backslash keeps the next character.
std::vector<std::string> split(const std::string& line);

const char* helpText();
}

#endif
