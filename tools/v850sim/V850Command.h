// V850Command: the simulator's command language, one command per line.
//
// parse() turns a line into what the simulator has to do: frames to send to the head unit (with
// optional pauses between them), a wait, a setting, or a control action. Frame-producing commands
// update the V850Model as the microcontroller's own reports would. Errors come back as
// Command::ERROR with a one-line reason; nothing is thrown. helpText() lists every command.
#ifndef V850COMMAND_H
#define V850COMMAND_H

#include "V850Model.h"

#include <string>
#include <vector>

struct V850Step
{
    V850Frame frame;  // sent when not empty
    int waitMs;       // then paused for this long
};

struct V850Command
{
    enum Kind { NONE, SEND, WAIT, WAIT_CONNECT, EXPECT, STATUS, HELP, QUIT, DISCONNECT, SCAN_INTERVAL, SETTING, ERROR };
    Kind kind = NONE;
    std::vector<V850Step> steps;  // SEND
    int number = 0;               // WAIT, WAIT_CONNECT, EXPECT (time-outs in ms), SCAN_INTERVAL
    V850Frame pattern;            // EXPECT: prefix of a frame from the head unit
    std::string text;             // ERROR reason, SETTING confirmation

    static V850Command parse(const std::string& line, V850Model& model);
    static const char* helpText();
};

#endif
