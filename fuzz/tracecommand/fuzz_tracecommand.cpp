// Reads one trace server command from the input and executes it, as the trace thread does, with
// a connected channel that builds and then drops every reply record.
#include "CJTTraceCallback.h"
#include "CJTTraceCommand.h"
#include "CJTTraceHelper.h"
#include "CJTTraceMessageData.h"
#include "CJTTraceScopeDef.h"
#include "CJTVersion.h"
#include "IJTTraceChannel.h"

#include <cstddef>
#include <cstdint>

namespace
{
class CDroppingChannel : public IJTTraceChannel
{
public:
    bool writeMessage(const CJTTraceMessageData& message) override
    {
        CJTByteStream out;
        message.serialize(out);
        return out.getSize() == message.getSerializedSize();
    }
    bool connect() override { return true; }
    void disconnect() override {}
    bool getTraceServerVersion(CJTVersion& version) override
    {
        version = CJTVersion(1, 0, 0);
        return true;
    }
    bool isConnected() const override { return true; }
};

int readAll(int argument);
CJTTraceCallbackDef gsAll(readAll, "Fuzz_all", "reads every parameter row");
CJTTraceCallbackParam gsInt(gsAll, "int", CJTTraceCallbackParam::TYPE_INT);
CJTTraceCallbackParam gsString(gsAll, "string", CJTTraceCallbackParam::TYPE_STRING);
CJTTraceCallbackParam gsArray(gsAll, "array", CJTTraceCallbackParam::TYPE_ARRAY);
CJTTraceCallbackParam gsOther(gsAll, "other", 7);
CJTTraceCallbackRetVal gsOut(gsAll, "out", CJTTraceCallbackParam::TYPE_STRING);
CJTTraceScopeDef gsScope("Fuzz_scope", "one");

int readAll(int argument)
{
    int sum = argument;
    for (uint16_t row = 0; row < 4; ++row) {
        sum += gsInt.getInt(row);
        sum += static_cast<int>(gsString.getString(row).getByteCount());
        sum += static_cast<int>(gsArray.getByteStream(row).getSize());
        gsOut.returnString(gsString.getString(row).c_str());
    }
    return sum;
}
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static CDroppingChannel channel;
    CJTTraceHelper& helper = CJTTraceHelper::getInstance();
    helper.setChannel(&channel);
    CJTByteStream in(data, static_cast<uint32_t>(size));
    CJTTraceCommand command;
    command.readFrom(in);
    // Persistence actions have no store here, so nothing leaves the process.
    helper.execute(command);
    return 0;
}
