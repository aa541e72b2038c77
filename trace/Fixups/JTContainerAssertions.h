// JTContainerAssertions: how the containers report a misuse.
//
// A bad index, argument or iterator given to a container is an assertion (JTAssert): it is
// raised as an assertion of the source file "TJTVector" at the caller's line, with the message
// of its code. Like every assertion it ends the process unless it was announced as expected
// (CJTAsserter::setExpectedAssertions); then reportAssertion returns and the container carries
// on without doing what was asked (see each container for what it returns then).
//
// Codes and messages (the first one is spelled so on purpose; the text is matched by tools):
//   0 INDEX_OUT_OF_RANGE  "Index our of range"
//   1 INVALID_PARAMETER   "Invalid parameter"
//   2 INVALID_ITERATOR    "Invalid iterator position"
// Any other code asserts without a text.
//
// Callable from any thread.
#ifndef JTCONTAINERASSERTIONS_H
#define JTCONTAINERASSERTIONS_H

// The line of a container call, taken at the caller by a default argument
// (SJTCallerLine line = JT_CALLER_LINE). Explicit, so a count is never mistaken for a line.
struct SJTCallerLine
{
    explicit SJTCallerLine(unsigned int callerLine) : line(callerLine) {}
    unsigned int line;
};
#define JT_CALLER_LINE SJTCallerLine(__builtin_LINE())

class JTContainerAssertions
{
public:
    enum EError { INDEX_OUT_OF_RANGE = 0, INVALID_PARAMETER = 1, INVALID_ITERATOR = 2 };

    static void reportAssertion(unsigned int code, unsigned int line = __builtin_LINE());
    // The message of a code, null for an unknown one.
    static const char* getMessage(unsigned int code);
};

// The vector family reports through the same table.
class JTVectorAssertions : public JTContainerAssertions
{
};

#endif
