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

void TraceSession::learn(const Record& r)
{
    switch (r.recordClass)
    {
    case REC_COUNT:
        if (r.subCode == COUNT_SCOPES && mAwait == Await::SCOPES)
        {
            mScopes.clear();
            mExpectedCount = r.value;
            if (r.value == 0)
            {
                mScopesKnown = true;
                mAwait = Await::NOTHING;
            }
        }
        else if (r.subCode == COUNT_CALLBACKS && mAwait == Await::CALLBACK_COUNT)
            mAwait = Await::NOTHING;
        break;
    case REC_PROGRESS:
        if (r.subCode == PROGRESS_START && mAwait == Await::CALLBACKS)
        {
            mCallbacks.clear();
            mExpectedCount = r.value;
            if (r.value == 0)
            {
                mCallbacksKnown = true;
                mAwait = Await::NOTHING;
            }
        }
        break;
    case REC_SCOPE:
        mScopes[r.index] = r.name;
        if (mAwait == Await::SCOPES && ++mReceivedCount >= mExpectedCount)
        {
            mScopesKnown = true;
            mAwait = Await::NOTHING;
        }
        break;
    case REC_CALLBACK:
        if (r.index >= mCallbacks.size())
            mCallbacks.resize(r.index + 1);
        mCallbacks[r.index] = Callback();
        mCallbacks[r.index].name = r.name;
        mCallbacks[r.index].description = r.text;
        mCallbacks[r.index].announcedParams = r.paramCount;
        mCallbacks[r.index].announcedRetvals = r.retvalCount;
        mLastCallbackSeen = r.subCode == CALLBACK_LAST;
        break;
    case REC_CALLBACK_PARAM:
        if (r.index < mCallbacks.size())
        {
            Callback& cb = mCallbacks[r.index];
            if (r.name == kGeneratedParam && cb.paramTypes.empty() && cb.announcedParams == 1)
                cb.generatedParam = true;
            else
            {
                cb.paramTypes.push_back(r.subCode);
                cb.paramNames.push_back(r.name);
            }
        }
        break;
    case REC_CALLBACK_RETVAL:
        if (r.index < mCallbacks.size())
            mCallbacks[r.index].retvalTypes.push_back(r.subCode);
        break;
    case REC_PROCESS_INFO:
        if (mAwait == Await::INFO)
            mAwait = Await::NOTHING;
        break;
    case REC_CALL_RESULT:
        if (mAwait == Await::CALL && r.callId == mAwaitCallId)
            mAwait = Await::NOTHING;
        break;
    case REC_HANDLERS:
        if (mAwait == Await::HANDLERS)
            mAwait = Await::NOTHING;
        break;
    default:
        break;
    }
    if (mAwait == Await::CALLBACKS && callbackListComplete())
    {
        mCallbacksKnown = true;
        mAwait = Await::NOTHING;
    }
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
