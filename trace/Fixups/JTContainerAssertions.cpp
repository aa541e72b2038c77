#include "JTContainerAssertions.h"

#include "JTAssert.h"

const char* JTContainerAssertions::getMessage(unsigned int code)
{
    static const char* const messages[] = {"Index our of range", "Invalid parameter", "Invalid iterator position"};
    return code < sizeof(messages) / sizeof(messages[0]) ? messages[code] : nullptr;
}

void JTContainerAssertions::reportAssertion(unsigned int code, unsigned int line)
{
    doAssert(line, "TJTVector", getMessage(code));
}
