#include "TraceSession.h"

using namespace TraceProtocol;

namespace
{
const char* const kGeneratedParam = "Generated default parameter";
}

std::string TraceSession::scopeName(uint32_t index) const
{
    auto it = mScopes.find(index);
    return it == mScopes.end() ? std::string() : it->second;
}

void TraceSession::expect(Await what, uint16_t callId, uint16_t callbackIndex)
{
    mAwait = what;
    mExpectedCount = 0;
    mReceivedCount = 0;
    mAwaitCallId = callId;
    mLastCallbackSeen = false;
    if (what == Await::CALL)
        mCallIndex[callId] = callbackIndex;
}

bool TraceSession::callbackListComplete() const
{
    if (!mLastCallbackSeen || mCallbacks.empty())
        return false;
    const Callback& last = mCallbacks.back();
    return last.paramTypes.size() + (last.generatedParam ? 1 : 0) >= last.announcedParams &&
           last.retvalTypes.size() >= last.announcedRetvals;
}

void TraceSession::complete(bool& known)
{
    known = true;
    mAwait = Await::NOTHING;
}

void TraceSession::startList(uint32_t count, bool& known)
{
    mExpectedCount = count;
    if (count == 0)
        complete(known);
}

void TraceSession::learnScopes(const Record& r)
{
    if (r.recordClass == REC_COUNT && r.subCode == COUNT_SCOPES && mAwait == Await::SCOPES) {
        mScopes.clear();
        startList(r.value, mScopesKnown);
    } else if (r.recordClass == REC_SCOPE) {
        mScopes[r.index] = r.name;
        if (mAwait == Await::SCOPES && ++mReceivedCount >= mExpectedCount)
            complete(mScopesKnown);
    }
}

void TraceSession::learnCallbacks(const Record& r)
{
    if (r.recordClass == REC_PROGRESS && r.subCode == PROGRESS_START && mAwait == Await::CALLBACKS) {
        mCallbacks.clear();
        startList(r.value, mCallbacksKnown);
    } else if (r.recordClass == REC_CALLBACK) {
        if (r.index >= mCallbacks.size())
            mCallbacks.resize(r.index + 1);
        Callback& cb = mCallbacks[r.index] = Callback();
        cb.name = r.name;
        cb.description = r.text;
        cb.announcedParams = r.paramCount;
        cb.announcedRetvals = r.retvalCount;
        mLastCallbackSeen = r.subCode == CALLBACK_LAST;
    } else if (r.recordClass == REC_CALLBACK_PARAM && r.index < mCallbacks.size()) {
        Callback& cb = mCallbacks[r.index];
        if (r.name == kGeneratedParam && cb.paramTypes.empty() && cb.announcedParams == 1)
            cb.generatedParam = true;
        else {
            cb.paramTypes.push_back(r.subCode);
            cb.paramNames.push_back(r.name);
        }
    } else if (r.recordClass == REC_CALLBACK_RETVAL && r.index < mCallbacks.size())
        mCallbacks[r.index].retvalTypes.push_back(r.subCode);
    if (mAwait == Await::CALLBACKS && callbackListComplete())
        complete(mCallbacksKnown);
}

// The replies that are a single record.
bool TraceSession::isReply(const Record& r) const
{
    switch (r.recordClass) {
    case REC_PROCESS_INFO:
        return mAwait == Await::INFO;
    case REC_HANDLERS:
        return mAwait == Await::HANDLERS;
    case REC_COUNT:
        return r.subCode == COUNT_CALLBACKS && mAwait == Await::CALLBACK_COUNT;
    case REC_CALL_RESULT:
        return mAwait == Await::CALL && r.callId == mAwaitCallId;
    default:
        return false;
    }
}

void TraceSession::learn(const Record& r)
{
    if (isReply(r))
        mAwait = Await::NOTHING;
    learnScopes(r);
    learnCallbacks(r);
}

std::string TraceSession::onRecord(const Record& record)
{
    learn(record);
    Names names;
    names.scope = [this](uint32_t i) { return scopeName(i); };
    names.callback = [this](uint32_t i) { return i < mCallbacks.size() ? mCallbacks[i].name : std::string(); };
    names.retvalType = [this](uint32_t callId, uint8_t retval) -> uint8_t {
        auto it = mCallIndex.find(static_cast<uint16_t>(callId));
        if (it == mCallIndex.end() || it->second >= mCallbacks.size())
            return 0;
        const Callback& cb = mCallbacks[it->second];
        return retval < cb.retvalTypes.size() ? cb.retvalTypes[retval] : 0;
    };
    return describeRecord(record, mName, names);
}
