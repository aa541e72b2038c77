// CJTTraceScope: tracing from inside a function, through that function's CJTTraceScopeDef.
//
//     void CCBRadio::run() {
//         CJTTraceScope scope(gsTraceServerScopeDef_CBRadio_CCBRadio_run);
//         scope.sendFormattedMessage("\n[CBR run] Req processing thread running...\n");
//     }
//
// Construction sends the full scope name as an entry message ("-->", kind 4) and destruction as an
// exit message ("<--", kind 8), both only when kind 4 is wanted: one filter bit switches the pair.
// Every send first asks isTraceFlagSet, a few byte reads, before any formatting: a message that
// is not wanted costs neither formatting nor allocation. sendFormattedMessage, -Error and -Warning
// test the filter byte inline first, so a filtered-out call is one load and one branch. Formatted texts go through a 400-byte
// stack buffer and are cut there.
//
// The *Unconditionally forms skip the wanted-test (filter and silent mode) but still go only to
// the definition's media. The *Ex forms send an extended message straight to the trace server,
// whatever the media; their identifier travels as a 32-bit number, the low 32 bits of the address
// of the (constant) identifier text.
//
// Nothing is traced before the trace helper exists (CJTTraceHelper::getInstancePtr, normally made
// by the trace thread). Output handlers run on the calling thread. Usable from any thread.
#ifndef CJTTRACESCOPE_H
#define CJTTRACESCOPE_H

#include <cstdint>

#include "CJTTraceScopeDef.h"

// GCC can forward the arguments of an always-inlined variadic function (__builtin_va_arg_pack), so
// the filter test of the sendFormatted* forms is made inline there; other compilers (the fuzzing
// build) call the out-of-line form, which behaves the same, only slower when filtered out.
#if defined(__GNUC__) && !defined(__clang__)
#define JT_TRACE_INLINE_FILTER 1
#else
#define JT_TRACE_INLINE_FILTER 0
#endif

class CJTTraceScope
{
public:
    // Message kinds: the filter bits and the kind byte of every message.
    enum { KIND_ERROR = 2, KIND_ENTRY = 4, KIND_EXIT = 8, KIND_WARNING = 32, KIND_MESSAGE = 64 };

    // The entry bit is tested inline, so a scope whose entry/exit pair is off costs two loads.
    explicit CJTTraceScope(const CJTTraceScopeDef& def) : mDef(def)
    {
        if ((def.getFilter() & KIND_ENTRY) != 0)
            sendEntryExit(KIND_ENTRY);
    }
    // The entry bit switches both messages, so a scope's entries and exits always pair up.
    ~CJTTraceScope()
    {
        if ((mDef.getFilter() & KIND_ENTRY) != 0)
            sendEntryExit(KIND_EXIT);
    }

    CJTTraceScope(const CJTTraceScope&) = delete;
    CJTTraceScope& operator=(const CJTTraceScope&) = delete;

    // True only if the trace helper exists, silent mode is off, kind & filter is non-zero and the
    // media mask is non-zero.
    bool isTraceFlagSet(uint8_t kind) const;

    void sendMessage(const char* text) const;
    void sendError(const char* text) const;
    void sendWarning(const char* text) const;

#if JT_TRACE_INLINE_FILTER
    // The filter byte is tested at the call site; only a wanted message pays for the call.
    __attribute__((always_inline, format(printf, 2, 3))) void sendFormattedMessage(const char* format, ...) const
    {
        if ((mDef.getFilter() & KIND_MESSAGE) != 0)
            sendFormatted(KIND_MESSAGE, format, __builtin_va_arg_pack());
    }
    __attribute__((always_inline, format(printf, 2, 3))) void sendFormattedError(const char* format, ...) const
    {
        if ((mDef.getFilter() & KIND_ERROR) != 0)
            sendFormatted(KIND_ERROR, format, __builtin_va_arg_pack());
    }
    __attribute__((always_inline, format(printf, 2, 3))) void sendFormattedWarning(const char* format, ...) const
    {
        if ((mDef.getFilter() & KIND_WARNING) != 0)
            sendFormatted(KIND_WARNING, format, __builtin_va_arg_pack());
    }
#else
    void sendFormattedMessage(const char* format, ...) const __attribute__((format(printf, 2, 3)));
    void sendFormattedError(const char* format, ...) const __attribute__((format(printf, 2, 3)));
    void sendFormattedWarning(const char* format, ...) const __attribute__((format(printf, 2, 3)));
#endif

    void sendMessageUnconditionally(const char* format, ...) const __attribute__((format(printf, 2, 3)));
    void sendErrorUnconditionally(const char* format, ...) const __attribute__((format(printf, 2, 3)));
    void sendWarningUnconditionally(const char* format, ...) const __attribute__((format(printf, 2, 3)));

    void sendMessageUnconditionallyEx(uint8_t kind, const char* identifier, const char* format, ...) const
        __attribute__((format(printf, 4, 5)));
    void sendMessageUnconditionallyEx(uint8_t kind, const char* identifier) const;
    void sendFormattedMessageEx(uint8_t kind, const char* identifier, const char* format, ...) const
        __attribute__((format(printf, 4, 5)));
    void sendFormattedMessageEx(uint8_t kind, const char* identifier) const;

    // "HexArray: len = <length>", then lines of ten "%02X" values separated by single blanks (the
    // last line holds the rest), all as kind 64. Nothing for null data or zero length.
    void sendHexArray(const uint8_t* data, uint32_t length) const;

    const CJTTraceScopeDef& getScopeDef() const
    {
        return mDef;
    }

    // The wire identifier of an extended message: the low 32 bits of the text's address.
    static uint32_t identifierOf(const char* identifier);

private:
    void sendEntryExit(uint8_t kind) const;
    // The out-of-line rest of the sendFormatted* forms: the whole wanted-test, formatting, sending.
    void sendFormatted(uint8_t kind, const char* format, ...) const __attribute__((format(printf, 3, 4)));

    const CJTTraceScopeDef& mDef;
};

#endif
