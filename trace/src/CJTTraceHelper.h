// CJTTraceHelper: the process-wide hub of the trace framework.
//
// Owns the output handler table and hands every wanted message to the handlers its scope's media
// mask selects, in the order of the media bits:
//   bit 1 "Trace Client"  a class 17 record to the trace server over the trace channel (nothing
//                         while no channel exists or it is not connected);
//   bit 2 "Kernel Trace"  "[<prefix>] <text>" as kernel user event 768 + the scope's kernel event;
//   bit 4 "Slog"          "[<prefix>]@<ms> (<pid>.<tid>): <text>" to the system log, errors at
//                         severity 3, warnings at 4, everything else at 5;
//   bit 8 "Console"       the same line plus "\n"; errors and warnings to standard error, the rest
//                         to standard output. Each line is written whole with one write(2), so a
//                         pipe sees complete lines at once and threads never interleave.
// setHandler replaces a slot (the trace server can list the slots, see getHandlerName).
//
// It also keeps what the trace thread sets up: the process name (given at registration), the
// trace channel, the cached server version, the persistence and the kept start-up options, and it
// serves the trace server's commands (execute / executeCmd) and the persistence actions.
//
// Lifetime: made on first getInstancePtr()/getInstance() (normally by the trace thread); getHelperPtr()
// never creates it, and scopes trace nothing while it is absent. destroy() removes it; call it only
// when no other thread traces any more.
//
// Threads: handlers run on the thread that traces. Channel and persistence pointers and the handler
// table may be changed by the trace thread while others trace (atomics); the process name, the
// start-up options and the persistence actions belong to the trace thread.
#ifndef CJTTRACEHELPER_H
#define CJTTRACEHELPER_H

#include <atomic>
#include <cstdint>
#include <string>

#include "CJTString.h"
#include "CJTVersion.h"
#include "TJTVector.h"

class CJTTraceScopeDef;
class CJTTraceScopeManager;
class CJTTraceCallbackManager;
class CJTTraceCommand;
class IJTTraceChannel;
class IJTTracePersistence;

class CJTTraceHelper
{
public:
    // What every handler gets for one message.
    struct tTraceMessageInfo
    {
        uint8_t kind;                      // message kind (2, 4, 8, 32, 64 or any other)
        const char* text;                  // the text, never null
        uint32_t timeMs;                   // monotonic clock in ms, truncated to 32 bits
        uint32_t processId;                // taken once when the helper is made
        uint32_t threadId;                 // kernel thread id of the caller
        const CJTTraceScopeDef* scopeDef;  // the sending scope's definition
    };

    typedef void (*tTraceHandler)(const tTraceMessageInfo& info);

    enum { MEDIA_TRACE_CLIENT = 1, MEDIA_KERNEL_TRACE = 2, MEDIA_SLOG = 4, MEDIA_CONSOLE = 8, HANDLER_SLOTS = 4 };

    // Log codes sent to the trace server with sendLogMessage(64, code, nullptr).
    enum {
        LOG_PERSISTENCE_STORED = 256,
        LOG_PERSISTENCE_LOADED = 257,
        LOG_PERSISTENCE_KILLED = 258,
        LOG_PERSISTENCE_LOAD_FAILED = 259
    };

    // The server must be compatible with this version (1.0.0).
    static const CJTVersion sRequiredServerVersion;

    // --- instance -------------------------------------------------------------------------------
    // Creates the helper on first call (taking the scope manager); thread-safe.
    static CJTTraceHelper* getInstancePtr();
    static CJTTraceHelper& getInstance();
    // The helper if it exists, else null; never creates it. A single atomic load.
    static CJTTraceHelper* getHelperPtr();
    static void destroy();

    // --- sending --------------------------------------------------------------------------------
    // Hands the message to the handlers selected by def's media mask (bits 1, 2, 4, 8 in order).
    void sendTraceMsg(uint8_t kind, const char* text, const CJTTraceScopeDef& def);
    // Sends through a temporary definition with empty names, filter = kind and media 1, registered
    // at the end of the scope list for the duration of the call.
    void sendTraceMsg(uint8_t kind, const char* text);
    // An extended message (class 40) straight to the trace server, whatever the media mask;
    // nothing while no connected channel exists.
    void sendTraceMsgEx(uint8_t kind, uint32_t identifier, const char* text, const CJTTraceScopeDef& def);

    // "ERR", "-->", "<--", "WRN", "MSG", else "???".
    static const char* getPrefix(uint8_t kind);

    // Replaces the handler of one media bit (1, 2, 4 or 8). A null function is ignored; a bit
    // outside 1..8 raises an assertion; 3, 5, 6 and 7 change nothing.
    void setHandler(uint8_t mediaBit, tTraceHandler function, const char* name);
    // Slot 0..3 (media bits 1, 2, 4, 8); null for a slot outside the table.
    tTraceHandler getHandler(unsigned slot) const;
    const char* getHandlerName(unsigned slot) const;

    // The built-in handlers.
    static void sendToNirvana(const tTraceMessageInfo& info);
    static void sendToTraceClient(const tTraceMessageInfo& info);
    static void sendToKernelTrace(const tTraceMessageInfo& info);
    static void sendToSlog(const tTraceMessageInfo& info);
    static void sendToConsole(const tTraceMessageInfo& info);

    // --- trace server (defined with the trace channel) --------------------------------------------
    // Keeps a copy of the process name, checks the server's version and connects the channel.
    bool requestRegister(const char* processName);
    bool isServerCompatibleWith(const CJTVersion& required);
    // Serves one command read from the server.
    void execute(const CJTTraceCommand& command);
    void executeCmd(uint8_t code, uint32_t parameter);
    // A class 38 record: sub-code = code, the 16-bit value, and the text if given.
    void sendLogMessage(uint8_t code, uint16_t value, const char* text);
    // The records of the trace-client handler (class 17) and of extended messages (class 40);
    // nothing while no connected channel exists.
    void writeTraceRecord(const tTraceMessageInfo& info);
    void writeTraceRecordEx(uint8_t kind, uint32_t identifier, const char* text, const CJTTraceScopeDef& def);
    // Keeps the "--tp=" and "--bp" options (in order), applies them with reloadPersistence, and
    // forgets them again unless keep is set.
    void initialize(int argc, char** argv, bool keep);

    // --- set-up ---------------------------------------------------------------------------------
    void setChannel(IJTTraceChannel* channel) { mpChannel.store(channel, std::memory_order_release); }
    IJTTraceChannel* getChannel() const { return mpChannel.load(std::memory_order_acquire); }
    void setPersistence(IJTTracePersistence* persistence)
    {
        mpPersistence.store(persistence, std::memory_order_release);
    }
    IJTTracePersistence* getPersistence() const { return mpPersistence.load(std::memory_order_acquire); }
    void setCallbackManager(CJTTraceCallbackManager* manager) { mpCallbackManager = manager; }
    CJTTraceCallbackManager* getCallbackManager() const { return mpCallbackManager; }

    // Null until a process name was given (requestRegister or setProcessName).
    const char* getProcessName() const { return mHasProcessName ? mProcessName.c_str() : nullptr; }
    void setProcessName(const char* name);
    uint32_t getProcessId() const { return mProcessId; }
    CJTTraceScopeManager& getScopeManager() const { return mScopeManager; }
    const TJTVector<CJTString>& getStartupOptions() const { return mStartupOptions; }

    // --- persistence ------------------------------------------------------------------------------
    // Each does nothing (and returns false) without a process name or without a persistence (or
    // with the null persistence). Results are reported to the server with the log codes above.
    // loadPersistent kills instead of loading when the persistence asks for it; a block that
    // fails to load is reported (259) and then killed like killPersistent does (258).
    bool loadPersistent();
    bool storePersistent();
    bool killPersistent();
    // Applies the kept start-up options in order ("--tp=<file>" loads that text file, "--bp" the
    // binary block); with none kept, loads the binary block.
    void reloadPersistence();

private:
    struct tHandlerSlot
    {
        std::atomic<tTraceHandler> function;
        std::atomic<const char*> name;
    };

    CJTTraceHelper(CJTTraceScopeManager& scopeManager, CJTTraceCallbackManager* callbackManager);
    ~CJTTraceHelper();
    CJTTraceHelper(const CJTTraceHelper&) = delete;
    CJTTraceHelper& operator=(const CJTTraceHelper&) = delete;

    bool persistenceUsable() const;

    static std::atomic<CJTTraceHelper*> spInstance;

    std::string mProcessName;
    bool mHasProcessName;
    uint32_t mProcessId;
    std::atomic<IJTTraceChannel*> mpChannel;
    CJTVersion mServerVersion;
    tHandlerSlot mHandlers[HANDLER_SLOTS];
    CJTTraceScopeManager& mScopeManager;
    CJTTraceCallbackManager* mpCallbackManager;
    std::atomic<IJTTracePersistence*> mpPersistence;
    TJTVector<CJTString> mStartupOptions;
};

// Remote-callable persistence actions (argument unused; return 0).
extern "C" {
int CJTTraceHelper_loadPersistent(int arg);
int CJTTraceHelper_storePersistent(int arg);
int CJTTraceHelper_killPersistent(int arg);
}

#endif
