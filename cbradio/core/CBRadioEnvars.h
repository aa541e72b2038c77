// CBRadioEnvars: the bus environment file ("/tmp/envars.sh", under CBRADIO_ROOT) of the head unit:
// whether it may be trusted, and its shell assignments.
//
// The file names the bus the process will serve and be called on, so it is read only when nobody
// but root or the process's own user can have written it: a regular file (a symbolic link is not
// followed), owned by root or by `user`, not writable by group or others. open() checks this on the
// descriptor it opens (no race between the check and the read) and never blocks: a FIFO counts as
// missing, like an absent or empty file, which is not worth a message.
//
// parseLine() takes one line as fgets() gives it (at most 511 characters and the newline) and
// finds, anywhere in it, the first of DBUS_SESSION_BUS_ADDRESS=, DBUS_SESSION_BUS_PID= and
// SVCIPC_DISPATCH_PRIORITY= (tried in that order; so "export NAME=..." works). The line is cut at
// the first ';' after the name; the value follows the '='. Leading single quotes go, and trailing
// ones when the value ends in one; a newline left in the value (no ';' cut it) stays, and so do the
// quotes before it. That is how the head unit's files have always been read; it is kept.
//
// exportFrom() opens the file as open() does and exports every assignment it holds, in file order
// (the last one wins, as in a shell), with setenv(). busAddressForTool() is the tools' way to their
// bus: DBUS_SESSION_BUS_ADDRESS of the environment when set and not empty, else the file exported as
// the service exports it.
//
// No globals, no threads, no heap beyond the returned texts; open() and parseLine() may be called
// from any thread, the exporting functions change the environment and belong to a program's start.
// The caller reports problems: the functions return why the file was refused, in words.
#ifndef CBRADIOENVARS_H
#define CBRADIOENVARS_H

#include <string>
#include <sys/types.h>
#include <vector>

namespace CBRadioEnvars
{
enum Verdict {
    READABLE,   // fd is open for reading
    MISSING,    // absent, empty or a FIFO: no file to speak of
    UNTRUSTED,  // refused; why says so
    UNOPENABLE  // there, but open(2) failed (errno kept in why)
};

struct File
{
    Verdict verdict = MISSING;
    int fd = -1;      // only for READABLE; the caller closes it
    std::string why;  // for UNTRUSTED and UNOPENABLE
};

// Checks and opens the file at a host path for a process running as `user`.
File open(const char* hostPath, uid_t user);

// Splits one line in place. True with name and value pointing into the line when it assigns
// one of the three variables; false (line untouched or partly cut) otherwise.
bool parseLine(char* line, char** name, char** value);

// Checks and opens the file like open(), then exports its assignments; the descriptor is closed
// on return. A file that cannot be read after opening is UNOPENABLE. `refused` (when given)
// receives the names setenv() refused.
File exportFrom(const char* hostPath, uid_t user, std::vector<std::string>* refused = nullptr);

// The address now in DBUS_SESSION_BUS_ADDRESS ("" when none), taken from the environment or
// else exported from "$CBRADIO_ROOT/tmp/envars.sh". `refusal` is empty, or says why the file
// was not read ("not reading <path>: it <why>" or "cannot open <path>: <reason>").
std::string busAddressForTool(std::string& refusal);
}

#endif
