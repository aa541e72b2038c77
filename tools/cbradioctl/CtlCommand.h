// CtlCommand: what a cbradioctl command line asks for.
//
// parseCommandLine() turns the arguments into one Command: a method call on the CB radio service
// (with its exact method name and argument text), a property query (call, then wait for the
// signal that carries the value), a watch of the service's signals, or a help text. It does no
// I/O; a bad command line gives Command::Kind::Usage with the message to print.
#ifndef CTLCOMMAND_H
#define CTLCOMMAND_H

#include "CBRadioBusNames.h"

#include <string>
#include <vector>

namespace cbradioctl
{

// Exit codes, part of the tool's interface for scripts.
enum ExitCode {
    EXIT_OK = 0,             // done; the service answered success (or the watch ended normally)
    EXIT_FAILURE_REPLY = 1,  // the service answered failure, or an empty result
    EXIT_USAGE = 2,          // bad command line
    EXIT_NOT_ON_BUS = 3,     // the service (bus name) is not on the bus
    EXIT_TIMEOUT = 4,        // no reply, or fewer signals than --count, in time
    EXIT_BUS_ERROR = 5       // any other bus problem (bus unreachable, error reply, ...)
};

const char* const kServiceName = CBRadioBusNames::SERVICE_NAME;
const char* const kServicePath = CBRadioBusNames::SERVICE_OBJECT;
const double kDefaultCallTimeoutS = 5.0;

struct Command
{
    enum class Kind {
        Call,   // invoke `method` with `params`; print the reply
        Props,  // getProperties, then print the payload of `signals[0]`
        Watch,  // print `signals` (all of the service's when empty) as they come
        Help,   // print `text` to standard output
        Usage   // print `text` to standard error, exit EXIT_USAGE
    };
    Kind kind = Kind::Usage;
    std::string method;
    std::string params;       // JSON text; "" for a call without arguments
    bool resultless = false;  // the service gives this method no result: the bus's NoResult
                              // error then means done
    std::vector<std::string> signals;
    double timeoutS = -1;  // -1: not given (calls use kDefaultCallTimeoutS, watch waits on)
    long count = 0;        // watch: stop after this many signals (0: no limit)
    std::string busName = kServiceName;
    std::string objPath = kServicePath;
    std::string text;  // Help / Usage
};

Command parseCommandLine(const std::vector<std::string>& args);

// The signals the service emits, in the order `watch` lists them.
const std::vector<std::string>& serviceSignals();

// The exit code for a reply text: failure for an empty text or a nonzero "code" member.
int exitCodeForReply(const std::string& reply);

}  // namespace cbradioctl

#endif
