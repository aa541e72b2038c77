// CJTTraceScopeDef: the static description of one traced function.
//
// Every traced function owns one static definition, named after component, class and function:
//     static CJTTraceScopeDef gsTraceServerScopeDef_CBRadio_CCBRadio_run("CBRadio_CCBRadio", "run");
// The constructor registers the definition with CJTTraceScopeManager, which hands out indices in
// registration order (static initialisation, link order); the index is the scope's identity on the
// trace server's wire and in the binary persistence block. The destructor unregisters it; indices
// of later definitions are not renumbered, so definitions are meant to live for the whole process.
//
// Per definition the manager and the trace server control three bytes:
//   filter        which message kinds are wanted (2 error, 4 entry/exit, 32 warning, 64 message);
//   media         which outputs get them (1 trace server, 2 kernel trace, 4 system log, 8 console);
//   kernel event  the kernel trace event code of this scope is this value plus 768.
// The full scope name is "<name>_<scope name>", or "<name>" without a scope name.
//
// Thread safety: filter, media and kernel event are written by the trace thread and read by every
// thread without a lock (relaxed atomics; a stale read only delays a change). Never copied.
#ifndef CJTTRACESCOPEDEF_H
#define CJTTRACESCOPEDEF_H

#include <atomic>
#include <cstddef>
#include <cstdint>

class CJTString;
class CJTTraceScopeManager;

class CJTTraceScopeDef
{
public:
    // Filter 0 (nothing traced until the server or persistence enables it), media 1, event 0.
    CJTTraceScopeDef(const char* name, const char* scopeName);
    // Media 1, kernel event 0.
    CJTTraceScopeDef(const char* name, const char* scopeName, uint8_t filter);
    CJTTraceScopeDef(const char* name, const char* scopeName, uint8_t filter, uint8_t media);
    ~CJTTraceScopeDef();

    CJTTraceScopeDef(const CJTTraceScopeDef&) = delete;
    CJTTraceScopeDef& operator=(const CJTTraceScopeDef&) = delete;

    // The full scope name; empty when the name is null.
    CJTString getScopeName() const;
    // Writes at most size-1 bytes of the full name (zero-terminated) and returns the formatter's
    // count (the full length); 0 when buffer or name is null.
    int getScopeName(char* buffer, size_t size) const;

    const char* getName() const { return mName; }
    const char* getFunctionName() const { return mScopeName; }
    uint16_t getIndex() const { return mIndex; }

    uint8_t getFilter() const { return mFilter.load(std::memory_order_relaxed); }
    uint8_t getMedia() const { return mMedia.load(std::memory_order_relaxed); }
    uint8_t getKernelEvent() const { return mKernelEvent.load(std::memory_order_relaxed); }
    void setFilter(uint8_t filter) { mFilter.store(filter, std::memory_order_relaxed); }
    void setMedia(uint8_t media) { mMedia.store(media, std::memory_order_relaxed); }
    void setKernelEvent(uint8_t event) { mKernelEvent.store(event, std::memory_order_relaxed); }

private:
    friend class CJTTraceScopeManager;

    struct tUnregistered
    {
    };
    // The manager's dummy: never registered, filter 0; constant-initialised so it is usable before
    // any dynamic initialisation runs.
    constexpr CJTTraceScopeDef(tUnregistered, const char* name, const char* scopeName)
        : mName(name), mScopeName(scopeName), mFilter(0), mMedia(0), mKernelEvent(0), mIndex(0)
    {
    }

    const char* mName;
    const char* mScopeName;
    std::atomic<uint8_t> mFilter;
    std::atomic<uint8_t> mMedia;
    std::atomic<uint8_t> mKernelEvent;
    uint16_t mIndex;
};

#endif
