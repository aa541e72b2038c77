// PeerCommand: peersim's command language, one command per line.
//
// parse() turns a line typed at the prompt, given with --cmd or read from a script into a
// PeerCommand; it does nothing itself. A line that cannot be understood gives kind ERROR with a
// one-line reason in `text`; nothing is thrown and no input makes it fail otherwise. Blank lines
// and lines starting with '#' give NONE. A word starting with '#' ends a command that takes no
// free text; commands that end in free text (a JSON payload, a description) take the rest of the
// line as it stands. helpText() lists every command.
#ifndef PEERCOMMAND_H
#define PEERCOMMAND_H

#include "PeerNames.h"

#include <string>
#include <vector>

// How a peer answers a method call.
enum class AnswerMode {
    NORMAL,     // does what the method asks and replies
    FAIL,       // does nothing and sends an error reply
    MALFORMED,  // does what the method asks but replies with a text that is not JSON
    SILENT      // does nothing and never replies
};

struct PeerCommand
{
    enum Kind {
        NONE,
        HELP,
        QUIT,
        STATUS,
        SLEEP,
        EMIT,    // peers[0] emits signal `name` with payload `text`
        ANSWER,  // `mode` for `method` ("" = every method) of `peers`
        DELAY,   // reply delay `number` ms for `method` ("" = every method) of `peers`
        LEAVE,
        JOIN,       // release / request the bus names of `peers`
        BOUNCE,     // leave, pause `number` ms, join
        VOX,        // voice detection state `number`
        ROUTING,    // audio routing `headsetD`, `headsetP`, `source`
        INTERRUPT,  // interruptSrc signal: action `name`, source `text`
        REFUSE,
        ACCEPT,            // add/remove requests (`name`: "add", "remove" or "both")
        INTERRUPT_SIGNAL,  // `flag`: follow add/remove answers with an interruptSrc signal
        TTS_AVAILABLE,     // speech availability `number`
        TTS_RESULT,        // read-out result: code `number`, description `text`
        DIAG,              // inspection mode status `number`
        DIAG_REPLY,        // inspection mode query reply: code `number`, description `text`
        REAR,              // rear controller state `name`
        POWER,             // power mode `number`
        RIDER,
        PASSENGER,  // PTT switch value `number`
        KV_SET,
        KV_GET,
        KV_DEL,
        KV_LIST,  // key `name`, JSON value `text`
        ERROR     // `text` says why
    };

    Kind kind = NONE;
    std::vector<Peer> peers;
    std::string method;
    AnswerMode mode = AnswerMode::NORMAL;
    long number = 0;
    std::string name;
    std::string text;
    std::string headsetD;
    std::string headsetP;
    std::string source;
    bool flag = false;

    static PeerCommand parse(const std::string& line);
    static const char* helpText();
};

#endif
