// The tool's record parser against the records the client framework builds.
#include "CJTTraceMessageData.h"
#include "TraceProtocol.h"
#include "TraceSession.h"

#include <gtest/gtest.h>

using namespace TraceProtocol;

namespace
{
Bytes wire(const CJTTraceMessageData& m)
{
    CJTByteStream out;
    m.serialize(out);
    return Bytes(out.getData(), out.getData() + out.getSize());
}

Record parsed(const CJTTraceMessageData& m)
{
    Bytes b = wire(m);
    Record r;
    std::string why;
    EXPECT_TRUE(parseRecord(b.data(), b.size(), r, &why)) << why;
    return r;
}
}

// Messages and scope records are read end to end by the trace server's e2e test; here the records
// it does not exercise.
TEST(TraceProtocol, ParsesTheFrameworksRecords)
{
    Record ex = parsed(CJTTraceMessageData::makeTraceMessageEx(2, 1, 10, 11, 4, 0xCAFE, nullptr));
    EXPECT_EQ(ex.value, 0xCAFEu);
    EXPECT_FALSE(ex.hasText);

    CJTTraceMessageData list = CJTTraceMessageData::makeHandlerList(10);
    list.addHandler(1, "Trace Client");
    list.addHandler(4, "Slog");
    list.complete();
    Record handlers = parsed(list);
    ASSERT_EQ(handlers.handlers.size(), 2u);
    EXPECT_EQ(handlers.handlers[1], std::make_pair(uint8_t(4), std::string("Slog")));
}

TEST(TraceProtocol, RefusesInconsistentRecordsWithoutReadingPastThem)
{
    Bytes b = wire(CJTTraceMessageData::makeProcessInfo(0, 10, 3, 0, "Proc"));
    Record r;
    EXPECT_FALSE(parseRecord(b.data(), 7, r));             // shorter than a header
    EXPECT_FALSE(parseRecord(b.data(), b.size() - 1, r));  // body shorter than announced
    Bytes lengths = b;
    lengths[2] ^= 1;  // the two lengths disagree
    EXPECT_FALSE(parseRecord(lengths.data(), lengths.size(), r));
    Bytes tiny = {17, 64, 2, 0, 2, 0, 0, 0, 1, 2};  // a message body too short for its fields
    EXPECT_FALSE(parseRecord(tiny.data(), tiny.size(), r));
    Bytes unknown = {99, 1, 1, 0, 1, 0, 0, 0, 0xAB};
    ASSERT_TRUE(parseRecord(unknown.data(), unknown.size(), r));
    EXPECT_EQ(r.data, Bytes{0xAB});
}

TEST(TraceSession, LinesUseLearnedScopeAndCallbackNames)
{
    TraceSession s("Proc");
    Record msg = parsed(CJTTraceMessageData::makeTraceMessage(2, 61001, 10, 11, 1, "\nbad thing\n"));
    EXPECT_EQ(s.onRecord(msg), "61.001 Proc 11 ERR #1: bad thing");

    s.expect(TraceSession::Await::SCOPES);
    s.onRecord(parsed(CJTTraceMessageData::makeCount(6, 2, 10)));
    s.onRecord(parsed(CJTTraceMessageData::makeScopeInfo(10, 0, 0, 1, 0, "A_x")));
    EXPECT_TRUE(s.awaiting());
    s.onRecord(parsed(CJTTraceMessageData::makeScopeInfo(10, 1, 0, 1, 0, "A_B_run")));
    EXPECT_FALSE(s.awaiting());
    EXPECT_EQ(s.onRecord(msg), "61.001 Proc 11 ERR A_B_run: bad thing");
    EXPECT_EQ(s.onRecord(parsed(CJTTraceMessageData::makeTraceMessage(4, 61001, 10, 11, 1, "A_B_run"))),
              "61.001 Proc 11 --> A_B_run");
    EXPECT_EQ(s.onRecord(parsed(CJTTraceMessageData::makeLogMessage(64, 2000, 10, 256, nullptr))),
              "2.000 Proc log 64/256 (settings stored)");
}
