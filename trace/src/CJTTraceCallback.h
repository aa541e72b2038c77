// Trace callbacks: functions of the process that the trace server can list and call.
//
// A callback is a static CJTTraceCallbackDef (function, name, description), optionally with typed
// parameters (CJTTraceCallbackParam) and return values (CJTTraceCallbackRetVal) declared right
// after it:
//
//     static int setVolume(int);
//     static CJTTraceCallbackDef gsSetVolume(setVolume, "setVolume", "set the volume of a zone");
//     static CJTTraceCallbackParam gsZone(gsSetVolume, "zone", CJTTraceCallbackParam::TYPE_STRING);
//     static CJTTraceCallbackParam gsLevel(gsSetVolume, "level", CJTTraceCallbackParam::TYPE_INT);
//     static CJTTraceCallbackRetVal gsOld(gsSetVolume, "old level", CJTTraceCallbackParam::TYPE_INT);
//     static int setVolume(int) { ... gsLevel.getInt(0) ... gsOld.returnInt(old); return 0; }
//
// Definitions register with CJTTraceCallbackManager in construction order, which is their index.
// A call from the server carries, per parameter, one or more rows (several values of one
// parameter in one call); the parameter getters take the row. Values are readable only while the
// callback runs. Return values are sent to the server at once, tagged with the running call.
//
// Threads: callbacks run on the trace thread, one at a time (CJTTraceCallbackContext's mutex).
// Definitions must be built before the trace thread starts (static objects are) and live as long
// as the process.
#ifndef CJTTRACECALLBACK_H
#define CJTTRACECALLBACK_H

#include "CJTByteStream.h"
#include "CJTMutex.h"
#include "CJTString.h"

#include <cstdint>
#include <mutex>
#include <vector>

class CJTTraceCallbackParam;
class CJTTraceCallbackRetVal;
class IJTTraceChannel;

class CJTTraceCallbackDef
{
public:
    typedef int (*tFunction)(int);

    CJTTraceCallbackDef(tFunction function, const char* name, const char* description);
    ~CJTTraceCallbackDef();

    tFunction getFunction() const { return mFunction; }
    const char* getName() const { return mName; }
    const char* getDescription() const { return mDescription; }

    uint32_t getNumberOfParams() const { return static_cast<uint32_t>(mParams.size()); }
    CJTTraceCallbackParam* getParam(uint32_t i) const { return i < mParams.size() ? mParams[i] : nullptr; }
    uint32_t getNumberOfRetVals() const { return static_cast<uint32_t>(mRetVals.size()); }
    CJTTraceCallbackRetVal* getRetVal(uint32_t i) const { return i < mRetVals.size() ? mRetVals[i] : nullptr; }

    // The row the return values of the running call are sent with: the last parameter row + 1.
    uint16_t getReturnRow() const { return mReturnRow; }
    void setReturnRow(uint16_t row) { mReturnRow = row; }

    // Called by the parameter and return value constructors; returns the position given.
    uint8_t addParam(CJTTraceCallbackParam* param);
    uint8_t addRetVal(CJTTraceCallbackRetVal* retVal);
    void removeParam(CJTTraceCallbackParam* param);
    void removeRetVal(CJTTraceCallbackRetVal* retVal);

private:
    CJTTraceCallbackDef(const CJTTraceCallbackDef&) = delete;
    CJTTraceCallbackDef& operator=(const CJTTraceCallbackDef&) = delete;

    tFunction mFunction;
    const char* mName;
    const char* mDescription;
    std::vector<CJTTraceCallbackParam*> mParams;
    std::vector<CJTTraceCallbackRetVal*> mRetVals;
    uint16_t mReturnRow;
};

class CJTTraceCallbackParam
{
public:
    enum { TYPE_INT = 1, TYPE_STRING = 2, TYPE_ARRAY = 3 };

    // Where one received row of this parameter lies in the call's data.
    struct SJTRowOffset
    {
        uint16_t row;
        uint32_t position;
        uint32_t length;
    };

    CJTTraceCallbackParam(CJTTraceCallbackDef& def, const char* name, uint8_t type);
    ~CJTTraceCallbackParam();

    const char* getName() const { return mName; }
    uint8_t getType() const { return mType; }

    // The rows received by the running call, in arrival order.
    uint32_t getNumberOfRows() const { return static_cast<uint32_t>(mRows.size()); }
    const SJTRowOffset* getRowOffset(uint16_t row) const;
    bool hasRow(uint16_t row) const { return getRowOffset(row) != nullptr; }

    // The value of a row; a row that was not sent gives 0 / an empty value. Asking a parameter of
    // another type is a programming error and raises an assertion.
    int getInt(uint16_t row = 0) const;                                  // TYPE_INT
    CJTString getString(uint16_t row = 0) const;                         // TYPE_STRING (a trailing zero is dropped)
    uint32_t getArray(uint16_t row, void* buffer, uint32_t size) const;  // TYPE_ARRAY; bytes copied
    CJTByteStream getByteStream(uint16_t row = 0) const;                 // TYPE_ARRAY

    // Used while a call is decoded.
    void reset();
    void addRow(uint16_t row, uint32_t position, uint32_t length);
    void setData(const CJTByteStream* data) { mpData = data; }

private:
    CJTTraceCallbackParam(const CJTTraceCallbackParam&) = delete;
    CJTTraceCallbackParam& operator=(const CJTTraceCallbackParam&) = delete;

    const uint8_t* rowBytes(uint16_t row, uint32_t& length) const;

    CJTTraceCallbackDef& mDef;
    const char* mName;
    uint8_t mType;
    std::vector<SJTRowOffset> mRows;
    const CJTByteStream* mpData;
};

class CJTTraceCallbackRetVal
{
public:
    enum { MAX_VALUE_BYTES = 400, MAX_STRING_BYTES = 252 };

    // type: one of CJTTraceCallbackParam's types; tells the server how to show the value.
    CJTTraceCallbackRetVal(CJTTraceCallbackDef& def, const char* name, uint8_t type);
    ~CJTTraceCallbackRetVal();

    const char* getName() const { return mName; }
    uint8_t getType() const { return mType; }
    uint8_t getNumber() const { return mNumber; }

    // Each sends one value of the running call to the server (class 31; nothing when no channel
    // is connected). Values are cut to 400 bytes; a string longer than 252 bytes is cut to 252
    // and the server is told with the log message "Callback string retval truncated".
    bool returnInt(int value) const;
    bool returnString(const char* text) const;
    bool returnArray(const void* data, uint32_t length) const;
    bool returnByteStream(const CJTByteStream& stream) const;

private:
    CJTTraceCallbackRetVal(const CJTTraceCallbackRetVal&) = delete;
    CJTTraceCallbackRetVal& operator=(const CJTTraceCallbackRetVal&) = delete;

    bool send(const void* data, uint32_t length) const;

    CJTTraceCallbackDef& mDef;
    const char* mName;
    uint8_t mType;
    uint8_t mNumber;
};

// Runs one callback at a time and knows the call it belongs to.
class CJTTraceCallbackContext
{
public:
    CJTTraceCallbackContext();

    // Decodes the arguments from data (positioned after index and call id) and calls def's
    // function under the mutex; returns its result, 0 without a function.
    int execute(CJTTraceCallbackDef& def, uint16_t callId, CJTByteStream& data);

    // The call id of the running call (return values are tagged with it).
    uint16_t getCurrentCallId() const { return mCurrentCallId; }

private:
    CJTMutex mMutex;
    uint16_t mCurrentCallId;
};

class CJTTraceCallbackManager
{
public:
    static CJTTraceCallbackManager& getInstance();

    uint32_t getNumberOfCallbacks() const;
    // Null for an index not below the count.
    CJTTraceCallbackDef* getCallbackDef(uint32_t index) const;
    // Runs callback index for call callId with the arguments in data; false (nothing run) for an
    // unknown index. result gets the function's return value.
    bool executeCallback(uint16_t callId, uint16_t index, CJTByteStream& data, int& result);

    void add(CJTTraceCallbackDef* def);
    void remove(CJTTraceCallbackDef* def);

    CJTTraceCallbackContext& getContext() { return mContext; }

    // The reply to the callback list command: progress start, then per callback its record, its
    // parameters, its return values and a progress step (every callback up to 100 callbacks,
    // every tenth above).
    void sendCallbackList(IJTTraceChannel& channel, uint32_t pid) const;

    static CJTTraceCallbackManager* spInstance;

private:
    CJTTraceCallbackManager() {}

    mutable std::mutex mLock;  // the list; definitions come and go during static set-up and exit
    std::vector<CJTTraceCallbackDef*> mDefs;
    CJTTraceCallbackContext mContext;
};

#endif
