// TraceSession: what the trace server knows about one traced process.
//
// It learns scope names from scope lists and callbacks (with their parameter and return value
// types) from callback lists, so that lines show names instead of numbers and the user can name
// scopes and callbacks in commands. It also tracks the one reply the console is waiting for, so
// that scripted commands run one after another: a command that asks for a list is complete when
// the whole list has arrived.
//
// Used by the server's single thread only.
#ifndef TRACESESSION_H
#define TRACESESSION_H

#include "TraceProtocol.h"

#include <cstdint>
#include <map>
#include <string>
#include <vector>

class TraceSession
{
public:
    struct Callback
    {
        std::string name;
        std::string description;
        bool generatedParam = false;      // the list's stand-in for "no parameters"
        std::vector<uint8_t> paramTypes;  // in parameter order
        std::vector<std::string> paramNames;
        std::vector<uint8_t> retvalTypes;  // by return value number
        uint8_t announcedParams = 0, announcedRetvals = 0;
    };

    enum class Await { NOTHING, INFO, SCOPES, CALLBACK_COUNT, CALLBACKS, CALL, HANDLERS };

    explicit TraceSession(std::string name) : mName(std::move(name)) {}

    const std::string& name() const { return mName; }

    // Learns from one record; returns the line to show for it.
    std::string onRecord(const TraceProtocol::Record& record);

    // Starts waiting for the reply to a command just sent (callId for Await::CALL).
    void expect(Await what, uint16_t callId = 0, uint16_t callbackIndex = 0);
    // True while a reply is outstanding; complete replies clear it.
    bool awaiting() const { return mAwait != Await::NOTHING; }
    Await awaited() const { return mAwait; }
    void giveUp() { mAwait = Await::NOTHING; }

    bool scopesKnown() const { return mScopesKnown; }
    const std::map<uint32_t, std::string>& scopes() const { return mScopes; }
    bool callbacksKnown() const { return mCallbacksKnown; }
    const std::vector<Callback>& callbacks() const { return mCallbacks; }

    uint16_t nextCallId() { return ++mLastCallId; }

private:
    void learn(const TraceProtocol::Record& r);
    void learnScopes(const TraceProtocol::Record& r);
    void learnCallbacks(const TraceProtocol::Record& r);
    bool isReply(const TraceProtocol::Record& r) const;
    void startList(uint32_t count, bool& known);  // a list announced with its length
    void complete(bool& known);                   // a list is in: stop waiting
    bool callbackListComplete() const;
    std::string scopeName(uint32_t index) const;

    std::string mName;
    Await mAwait = Await::NOTHING;
    uint32_t mExpectedCount = 0;
    uint32_t mReceivedCount = 0;
    uint16_t mAwaitCallId = 0;
    bool mScopesKnown = false;
    std::map<uint32_t, std::string> mScopes;
    bool mCallbacksKnown = false;
    bool mLastCallbackSeen = false;
    std::vector<Callback> mCallbacks;
    std::map<uint16_t, uint16_t> mCallIndex;  // call id -> callback index
    uint16_t mLastCallId = 0;
};

#endif
