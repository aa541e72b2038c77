#include "CJTTraceCallback.h"

#include "CJTTraceHelper.h"
#include "CJTTraceMessageData.h"
#include "IJTTraceChannel.h"
#include "JTAssert.h"
#include "TJTAutoLock.h"

#include <algorithm>
#include <cstring>

CJTTraceCallbackManager* CJTTraceCallbackManager::spInstance = nullptr;

namespace
{
const char* const kGeneratedParamName = "Generated default parameter";
const char* const kTruncatedText = "Callback string retval truncated";
const uint8_t kLogCodeTruncated = 32;
const uint32_t kCallbackNameMax = 440;
const uint32_t kCallbackNameField = 40;

IJTTraceChannel* connectedChannel()
{
    CJTTraceHelper* helper = CJTTraceHelper::getHelperPtr();
    IJTTraceChannel* channel = helper ? helper->getChannel() : nullptr;
    return channel && channel->isConnected() ? channel : nullptr;
}
}

// --- CJTTraceCallbackDef -------------------------------------------------------------------------

CJTTraceCallbackDef::CJTTraceCallbackDef(tFunction function, const char* name, const char* description)
    : mFunction(function), mName(name), mDescription(description), mReturnRow(0)
{
    CJTTraceCallbackManager::getInstance().add(this);
}

CJTTraceCallbackDef::~CJTTraceCallbackDef()
{
    CJTTraceCallbackManager::getInstance().remove(this);
}

uint8_t CJTTraceCallbackDef::addParam(CJTTraceCallbackParam* param)
{
    mParams.push_back(param);
    return static_cast<uint8_t>(mParams.size() - 1);
}

uint8_t CJTTraceCallbackDef::addRetVal(CJTTraceCallbackRetVal* retVal)
{
    mRetVals.push_back(retVal);
    return static_cast<uint8_t>(mRetVals.size() - 1);
}

void CJTTraceCallbackDef::removeParam(CJTTraceCallbackParam* param)
{
    mParams.erase(std::remove(mParams.begin(), mParams.end(), param), mParams.end());
}

void CJTTraceCallbackDef::removeRetVal(CJTTraceCallbackRetVal* retVal)
{
    mRetVals.erase(std::remove(mRetVals.begin(), mRetVals.end(), retVal), mRetVals.end());
}

// --- CJTTraceCallbackParam -----------------------------------------------------------------------

CJTTraceCallbackParam::CJTTraceCallbackParam(CJTTraceCallbackDef& def, const char* name, uint8_t type)
    : mDef(def), mName(name), mType(type), mpData(nullptr)
{
    def.addParam(this);
}

CJTTraceCallbackParam::~CJTTraceCallbackParam()
{
    mDef.removeParam(this);
}

void CJTTraceCallbackParam::reset()
{
    mRows.clear();
}

void CJTTraceCallbackParam::addRow(uint16_t row, uint32_t position, uint32_t length)
{
    mRows.push_back({row, position, length});
}

const CJTTraceCallbackParam::SJTRowOffset* CJTTraceCallbackParam::getRowOffset(uint16_t row) const
{
    for (const SJTRowOffset& r : mRows)
        if (r.row == row)
            return &r;
    return nullptr;
}

const uint8_t* CJTTraceCallbackParam::rowBytes(uint16_t row, uint32_t& length) const
{
    length = 0;
    const SJTRowOffset* r = getRowOffset(row);
    if (!r || !mpData || !mpData->getData() || r->position > mpData->getSize() ||
        r->length > mpData->getSize() - r->position)
        return nullptr;
    length = r->length;
    return mpData->getData() + r->position;
}

int CJTTraceCallbackParam::getInt(uint16_t row) const
{
    if (mType != TYPE_INT)
        doAssert(__LINE__, __FILE__, "CJTTraceCallbackParam::getInt on a parameter that is not an integer");
    uint32_t length;
    const uint8_t* p = rowBytes(row, length);
    if (!p || length < 4)
        return 0;
    return static_cast<int>(p[0] | p[1] << 8 | p[2] << 16 | static_cast<uint32_t>(p[3]) << 24);
}

CJTString CJTTraceCallbackParam::getString(uint16_t row) const
{
    if (mType != TYPE_STRING)
        doAssert(__LINE__, __FILE__, "CJTTraceCallbackParam::getString on a parameter that is not a string");
    uint32_t length;
    const uint8_t* p = rowBytes(row, length);
    if (!p)
        return CJTString();
    const void* zero = std::memchr(p, 0, length);
    if (zero)
        length = static_cast<uint32_t>(static_cast<const uint8_t*>(zero) - p);
    return CJTString(reinterpret_cast<const char*>(p), length);
}

uint32_t CJTTraceCallbackParam::getArray(uint16_t row, void* buffer, uint32_t size) const
{
    if (mType != TYPE_ARRAY)
        doAssert(__LINE__, __FILE__, "CJTTraceCallbackParam::getArray on a parameter that is not an array");
    uint32_t length;
    const uint8_t* p = rowBytes(row, length);
    if (!p || !buffer)
        return 0;
    uint32_t n = length < size ? length : size;
    std::memcpy(buffer, p, n);
    return n;
}

CJTByteStream CJTTraceCallbackParam::getByteStream(uint16_t row) const
{
    if (mType != TYPE_ARRAY)
        doAssert(__LINE__, __FILE__, "CJTTraceCallbackParam::getByteStream on a parameter that is not an array");
    uint32_t length;
    const uint8_t* p = rowBytes(row, length);
    return p ? CJTByteStream(p, length) : CJTByteStream();
}

// --- CJTTraceCallbackRetVal ----------------------------------------------------------------------

CJTTraceCallbackRetVal::CJTTraceCallbackRetVal(CJTTraceCallbackDef& def, const char* name, uint8_t type)
    : mDef(def), mName(name), mType(type), mNumber(def.addRetVal(this))
{
}

CJTTraceCallbackRetVal::~CJTTraceCallbackRetVal()
{
    mDef.removeRetVal(this);
}

bool CJTTraceCallbackRetVal::send(const void* data, uint32_t length) const
{
    IJTTraceChannel* channel = connectedChannel();
    if (!channel)
        return false;
    CJTTraceMessageData m(CJTTraceMessageData::CLASS_CALLBACK_RETURN, mNumber);
    m.body().writeUInt16(mDef.getReturnRow());
    m.body().writeUInt16(CJTTraceCallbackManager::getInstance().getContext().getCurrentCallId());
    if (length > MAX_VALUE_BYTES)
        length = MAX_VALUE_BYTES;
    if (data && length)
        m.body().doWrite(data, length);
    m.complete();
    return channel->writeMessage(m);
}

bool CJTTraceCallbackRetVal::returnInt(int value) const
{
    uint8_t bytes[4];
    for (int i = 0; i < 4; ++i)
        bytes[i] = static_cast<uint8_t>(static_cast<uint32_t>(value) >> (8 * i));
    return send(bytes, sizeof bytes);
}

bool CJTTraceCallbackRetVal::returnString(const char* text) const
{
    if (!text)
        text = "";
    uint32_t length = static_cast<uint32_t>(std::strlen(text));
    if (length > MAX_STRING_BYTES) {
        length = MAX_STRING_BYTES;
        if (CJTTraceHelper* helper = CJTTraceHelper::getHelperPtr())
            helper->sendLogMessage(kLogCodeTruncated, 0, kTruncatedText);
    }
    uint8_t bytes[MAX_STRING_BYTES + 1];
    std::memcpy(bytes, text, length);
    bytes[length] = 0;
    return send(bytes, length + 1);
}

bool CJTTraceCallbackRetVal::returnArray(const void* data, uint32_t length) const
{
    return send(data, data ? length : 0);
}

bool CJTTraceCallbackRetVal::returnByteStream(const CJTByteStream& stream) const
{
    return send(stream.getData(), stream.getSize());
}

// --- CJTTraceCallbackContext ---------------------------------------------------------------------

CJTTraceCallbackContext::CJTTraceCallbackContext() : mMutex(false), mCurrentCallId(0) {}

namespace
{
// One parameter or return value of callback `index` in a callback list: its type as sub-code,
// then pid, index and name.
void sendEntry(IJTTraceChannel& channel, uint8_t recordClass, uint8_t type, uint32_t pid, uint32_t index,
               const char* name)
{
    CJTTraceMessageData entry(recordClass, type);
    entry.body().writeUInt32(pid);
    entry.body().writeUInt16(static_cast<uint16_t>(index));
    entry.body().writeString(name ? name : "", CJTTraceMessageData::MAX_NAME_TEXT);
    entry.complete();
    channel.writeMessage(entry);
}

// The entries of a call with declared parameters: number u8, row u16, then the value (an int
// of 4 bytes, or a string or array with its u16 length). The rows are taken as positions in
// data; an entry cut off ends the list.
void readParams(CJTTraceCallbackDef& def, CJTByteStream& data)
{
    uint32_t count = def.getNumberOfParams();
    for (uint32_t i = 0; i < count; ++i) {
        def.getParam(i)->reset();
        def.getParam(i)->setData(&data);
    }
    bool anyRow = false;
    uint16_t lastRow = 0;
    uint8_t number;
    while (data.readUInt8(number)) {
        if (number >= count)
            continue;  // not one of ours: skipped as this one byte
        CJTTraceCallbackParam& param = *def.getParam(number);
        uint16_t row;
        if (!data.readUInt16(row))
            break;
        uint32_t length = 0;
        if (param.getType() == CJTTraceCallbackParam::TYPE_INT)
            length = 4;
        else if (param.getType() == CJTTraceCallbackParam::TYPE_STRING ||
                 param.getType() == CJTTraceCallbackParam::TYPE_ARRAY) {
            uint16_t n;
            if (!data.readUInt16(n))
                break;
            length = n;
        }
        uint32_t position = data.getReadPosition();
        if (data.readSkip(length) != length)
            break;  // the value was cut off: the entry is not taken
        param.addRow(row, position, length);
        lastRow = row;
        anyRow = true;
    }
    def.setReturnRow(anyRow ? static_cast<uint16_t>(lastRow + 1) : 0);
}
}

int CJTTraceCallbackContext::execute(CJTTraceCallbackDef& def, uint16_t callId, CJTByteStream& data)
{
    TJTAutoLock<CJTMutex> lock(mMutex);
    mCurrentCallId = callId;
    uint32_t argument = 0;
    if (def.getFunction())
        data.readUInt32(argument);
    uint32_t count = def.getNumberOfParams();
    if (count > 0)
        readParams(def, data);
    else if (data.getRemaining() > 0) {
        // The generated default parameter: number and row, then the value again.
        data.readSkip(3);
        data.readUInt32(argument);
    }
    int result = def.getFunction() ? def.getFunction()(static_cast<int>(argument)) : 0;
    for (uint32_t i = 0; i < count; ++i)
        def.getParam(i)->setData(nullptr);
    return result;
}

// --- CJTTraceCallbackManager ---------------------------------------------------------------------

CJTTraceCallbackManager& CJTTraceCallbackManager::getInstance()
{
    // Definitions register during static initialisation, in any order of the program's files;
    // the manager is made by the first of them and kept for the life of the process.
    static CJTTraceCallbackManager* instance = spInstance = new CJTTraceCallbackManager();
    return *instance;
}

uint32_t CJTTraceCallbackManager::getNumberOfCallbacks() const
{
    std::lock_guard<std::mutex> guard(mLock);
    return static_cast<uint32_t>(mDefs.size());
}

CJTTraceCallbackDef* CJTTraceCallbackManager::getCallbackDef(uint32_t index) const
{
    std::lock_guard<std::mutex> guard(mLock);
    return index < mDefs.size() ? mDefs[index] : nullptr;
}

bool CJTTraceCallbackManager::executeCallback(uint16_t callId, uint16_t index, CJTByteStream& data, int& result)
{
    CJTTraceCallbackDef* def = getCallbackDef(index);
    if (!def)
        return false;
    result = mContext.execute(*def, callId, data);
    return true;
}

void CJTTraceCallbackManager::add(CJTTraceCallbackDef* def)
{
    std::lock_guard<std::mutex> guard(mLock);
    mDefs.push_back(def);
}

void CJTTraceCallbackManager::remove(CJTTraceCallbackDef* def)
{
    std::lock_guard<std::mutex> guard(mLock);
    mDefs.erase(std::remove(mDefs.begin(), mDefs.end(), def), mDefs.end());
}

void CJTTraceCallbackManager::sendCallbackList(IJTTraceChannel& channel, uint32_t pid) const
{
    uint32_t count = getNumberOfCallbacks();
    channel.writeMessage(CJTTraceMessageData::makeProgress(CJTTraceMessageData::PROGRESS_START, pid, count));
    uint32_t step = count > 100 ? 10 : 1;
    for (uint32_t i = 0; i < count; ++i) {
        const CJTTraceCallbackDef* def = getCallbackDef(i);
        if (!def)
            break;  // the list shrank meanwhile (only at process exit)
        uint32_t params = def->getNumberOfParams();
        uint32_t retvals = def->getNumberOfRetVals();

        CJTTraceMessageData cb(CJTTraceMessageData::CLASS_CALLBACK, i + 1 == count ? 255 : 0);
        cb.body().writeUInt32(pid);
        cb.body().writeUInt16(static_cast<uint16_t>(i));
        cb.body().writeUInt8(static_cast<uint8_t>(params == 0 ? 1 : params));
        cb.body().writeUInt8(static_cast<uint8_t>(retvals));
        cb.body().writeUInt16(0);
        uint32_t nameLength = cb.body().writeString(def->getName() ? def->getName() : "", kCallbackNameMax,
                                                    kCallbackNameField);
        uint32_t excess = nameLength > kCallbackNameField ? nameLength - kCallbackNameField : 0;
        cb.body().writeString(def->getDescription() ? def->getDescription() : "",
                              CJTTraceMessageData::MAX_MESSAGE_TEXT - excess);
        cb.complete();
        channel.writeMessage(cb);

        if (params == 0)
            sendEntry(channel, CJTTraceMessageData::CLASS_CALLBACK_PARAM, CJTTraceCallbackParam::TYPE_INT, pid, i,
                      kGeneratedParamName);
        for (uint32_t k = 0; k < params; ++k)
            sendEntry(channel, CJTTraceMessageData::CLASS_CALLBACK_PARAM, def->getParam(k)->getType(), pid, i,
                      def->getParam(k)->getName());
        for (uint32_t k = 0; k < retvals; ++k)
            sendEntry(channel, CJTTraceMessageData::CLASS_CALLBACK_RETVAL, def->getRetVal(k)->getType(), pid, i,
                      def->getRetVal(k)->getName());
        if (i % step == 0)
            channel.writeMessage(CJTTraceMessageData::makeProgress(CJTTraceMessageData::PROGRESS_STEP, pid, i));
    }
}
