#include "CJTTraceScope.h"

#include <cstdarg>

#include "CJTTraceHelper.h"
#include "CJTTraceScopeManager.h"
#include "TJTFormatString.h"

namespace
{
// Room for a formatted message; the trace channel cuts the text to 399 characters anyway.
typedef TJTFormatString<400> tMessageText;
// The framework's own short texts: the hex dump.
typedef TJTFormatString<256> tShortText;

// The helper if tracing is possible at all and silent mode is off.
inline CJTTraceHelper* audibleHelper()
{
    CJTTraceHelper* helper = CJTTraceHelper::getHelperPtr();
    if (!helper || helper->getScopeManager().isSilent())
        return nullptr;
    return helper;
}
}

void CJTTraceScope::sendEntryExit(uint8_t kind) const
{
    if (!isTraceFlagSet(KIND_ENTRY))
        return;
    char fullName[512];
    mDef.getScopeName(fullName, sizeof(fullName) - 1);
    CJTTraceHelper::getHelperPtr()->sendTraceMsg(kind, fullName, mDef);
}

bool CJTTraceScope::isTraceFlagSet(uint8_t kind) const
{
    // Cheapest tests first: most calls end at the filter byte.
    if ((mDef.getFilter() & kind) == 0 || mDef.getMedia() == 0)
        return false;
    return audibleHelper() != nullptr;
}

uint32_t CJTTraceScope::identifierOf(const char* identifier)
{
    return static_cast<uint32_t>(reinterpret_cast<uintptr_t>(identifier));
}

#define JT_SEND_PLAIN(kind, text)                                                           \
    do {                                                                                    \
        if (isTraceFlagSet(kind))                                                           \
            CJTTraceHelper::getHelperPtr()->sendTraceMsg(kind, (text) ? (text) : "", mDef); \
    } while (0)

void CJTTraceScope::sendMessage(const char* text) const
{
    JT_SEND_PLAIN(KIND_MESSAGE, text);
}
void CJTTraceScope::sendError(const char* text) const
{
    JT_SEND_PLAIN(KIND_ERROR, text);
}
void CJTTraceScope::sendWarning(const char* text) const
{
    JT_SEND_PLAIN(KIND_WARNING, text);
}

#undef JT_SEND_PLAIN

// Formats only after the wanted-test passed; the buffer lives on the stack.
#define JT_SEND_FORMATTED(kind)                                         \
    do {                                                                \
        if (!isTraceFlagSet(kind))                                      \
            return;                                                     \
        tMessageText text;                                              \
        va_list args;                                                   \
        va_start(args, format);                                         \
        text.vformat(format, args);                                     \
        va_end(args);                                                   \
        CJTTraceHelper::getHelperPtr()->sendTraceMsg(kind, text, mDef); \
    } while (0)

void CJTTraceScope::sendFormatted(uint8_t kind, const char* format, ...) const
{
    JT_SEND_FORMATTED(kind);
}

#if !JT_TRACE_INLINE_FILTER
void CJTTraceScope::sendFormattedMessage(const char* format, ...) const
{
    JT_SEND_FORMATTED(KIND_MESSAGE);
}
void CJTTraceScope::sendFormattedError(const char* format, ...) const
{
    JT_SEND_FORMATTED(KIND_ERROR);
}
void CJTTraceScope::sendFormattedWarning(const char* format, ...) const
{
    JT_SEND_FORMATTED(KIND_WARNING);
}
#endif

#undef JT_SEND_FORMATTED

// Skips the filter and silent mode; the media mask still decides where the text goes.
#define JT_SEND_UNCONDITIONALLY(kind)                            \
    do {                                                         \
        CJTTraceHelper* helper = CJTTraceHelper::getHelperPtr(); \
        if (!helper || mDef.getMedia() == 0)                     \
            return;                                              \
        tMessageText text;                                       \
        va_list args;                                            \
        va_start(args, format);                                  \
        text.vformat(format, args);                              \
        va_end(args);                                            \
        helper->sendTraceMsg(kind, text, mDef);                  \
    } while (0)

void CJTTraceScope::sendMessageUnconditionally(const char* format, ...) const
{
    JT_SEND_UNCONDITIONALLY(KIND_MESSAGE);
}
void CJTTraceScope::sendErrorUnconditionally(const char* format, ...) const
{
    JT_SEND_UNCONDITIONALLY(KIND_ERROR);
}
void CJTTraceScope::sendWarningUnconditionally(const char* format, ...) const
{
    JT_SEND_UNCONDITIONALLY(KIND_WARNING);
}

#undef JT_SEND_UNCONDITIONALLY

void CJTTraceScope::sendMessageUnconditionallyEx(uint8_t kind, const char* identifier, const char* format, ...) const
{
    CJTTraceHelper* helper = CJTTraceHelper::getHelperPtr();
    if (!helper)
        return;
    tMessageText text;
    va_list args;
    va_start(args, format);
    text.vformat(format, args);
    va_end(args);
    helper->sendTraceMsgEx(kind, identifierOf(identifier), text, mDef);
}

void CJTTraceScope::sendMessageUnconditionallyEx(uint8_t kind, const char* identifier) const
{
    if (CJTTraceHelper* helper = CJTTraceHelper::getHelperPtr())
        helper->sendTraceMsgEx(kind, identifierOf(identifier), nullptr, mDef);
}

// Extended messages bypass the media mask, so only the filter and silent mode are asked here.
void CJTTraceScope::sendFormattedMessageEx(uint8_t kind, const char* identifier, const char* format, ...) const
{
    if ((mDef.getFilter() & kind) == 0)
        return;
    CJTTraceHelper* helper = audibleHelper();
    if (!helper)
        return;
    tMessageText text;
    va_list args;
    va_start(args, format);
    text.vformat(format, args);
    va_end(args);
    helper->sendTraceMsgEx(kind, identifierOf(identifier), text, mDef);
}

void CJTTraceScope::sendFormattedMessageEx(uint8_t kind, const char* identifier) const
{
    if ((mDef.getFilter() & kind) == 0)
        return;
    if (CJTTraceHelper* helper = audibleHelper())
        helper->sendTraceMsgEx(kind, identifierOf(identifier), nullptr, mDef);
}

void CJTTraceScope::sendHexArray(const uint8_t* data, uint32_t length) const
{
    if (!isTraceFlagSet(KIND_MESSAGE) || !data || length == 0)
        return;
    CJTTraceHelper* helper = CJTTraceHelper::getHelperPtr();
    tShortText line;
    line.format("HexArray: len = %d", static_cast<int>(length));
    helper->sendTraceMsg(KIND_MESSAGE, line, mDef);

    const uint8_t* p = data;
    uint32_t left = length;
    for (; left >= 10; left -= 10, p += 10) {
        line.format("%02X %02X %02X %02X %02X %02X %02X %02X %02X %02X", p[0], p[1], p[2], p[3], p[4], p[5], p[6], p[7],
                    p[8], p[9]);
        helper->sendTraceMsg(KIND_MESSAGE, line, mDef);
    }
    if (left > 0) {
        line.format("%s", "");
        for (uint32_t i = 0; i + 1 < left; ++i)
            line.append("%02X ", p[i]);
        line.append("%02X", p[left - 1]);
        helper->sendTraceMsg(KIND_MESSAGE, line, mDef);
    }
}
