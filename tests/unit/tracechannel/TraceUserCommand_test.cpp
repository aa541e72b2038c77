#include "TraceUserCommand.h"

#include <gtest/gtest.h>

using namespace TraceProtocol;
using TraceUserCommand::Action;
using TraceUserCommand::translate;

namespace
{
Record rec(uint8_t cls, uint8_t sub, uint32_t index, const std::string& name, uint32_t value = 0)
{
    Record r;
    r.recordClass = cls;
    r.subCode = sub;
    r.index = index;
    r.name = name;
    r.value = value;
    return r;
}

// A process that knows scopes 0..299 ("S_<i>", 5 and 6 also "Radio_...") and two callbacks.
void learn(TraceSession& s)
{
    s.expect(TraceSession::Await::SCOPES);
    s.onRecord(rec(REC_COUNT, COUNT_SCOPES, 0, "", 300));
    for (uint32_t i = 0; i < 300; ++i)
        s.onRecord(rec(REC_SCOPE, 0, i, i == 5 || i == 6 ? "Radio_" + std::to_string(i) : "S_" + std::to_string(i)));
    s.expect(TraceSession::Await::CALLBACKS);
    s.onRecord(rec(REC_PROGRESS, PROGRESS_START, 0, "", 2));
    Record cb = rec(REC_CALLBACK, 0, 0, "echo");
    cb.paramCount = 2;
    s.onRecord(cb);
    s.onRecord(rec(REC_CALLBACK_PARAM, TYPE_STRING, 0, "text"));
    s.onRecord(rec(REC_CALLBACK_PARAM, TYPE_INT, 0, "n"));
    Record plain = rec(REC_CALLBACK, CALLBACK_LAST, 1, "plain");
    plain.paramCount = 1;
    s.onRecord(plain);
    EXPECT_TRUE(s.awaiting());
    s.onRecord(rec(REC_CALLBACK_PARAM, TYPE_INT, 1, "Generated default parameter"));
    EXPECT_FALSE(s.awaiting());
}
}

TEST(TraceUserCommand, FilterAndMediaTargets)
{
    TraceSession s("P");
    Action one = translate("filter 7 err+wrn", &s);
    ASSERT_EQ(one.kind, Action::SEND);
    EXPECT_EQ(one.commands, (std::vector<Bytes>{{3, 7, 0, 34, 0}}));

    Action range = translate("media 10-300 console", &s);  // 291 scopes: two range commands
    ASSERT_EQ(range.kind, Action::SEND);
    EXPECT_EQ(range.commands, (std::vector<Bytes>{{15, 10, 0, 8, 255}, {15, 9, 1, 8, 36}}));

    EXPECT_EQ(translate("filter Radio all", &s).kind, Action::NEEDS_SCOPES);
    learn(s);
    Action byName = translate("filter Radio all", &s);
    EXPECT_EQ(byName.commands, (std::vector<Bytes>{{11, 5, 0, 0xFF, 2}}));
    EXPECT_EQ(translate("filter Nothing 1", &s).kind, Action::ERROR);
    EXPECT_EQ(translate("filter 1 loud", &s).kind, Action::ERROR);
    EXPECT_EQ(translate("filter 9-3 1", &s).kind, Action::ERROR);
}

// Fetching the callbacks before a call, and text, integer and plain arguments, reach the callbacks
// of a real program in the trace server's e2e test; here the arguments that do not fit.
TEST(TraceUserCommand, CallRefusesArgumentsThatDoNotFitTheParameters)
{
    TraceSession s("P");
    learn(s);
    EXPECT_EQ(translate("call echo x notanumber", &s).kind, Action::ERROR);
    EXPECT_EQ(translate("call echo 1 2 3", &s).kind, Action::ERROR);
    EXPECT_EQ(translate("call nosuch", &s).kind, Action::ERROR);
}

TEST(TraceUserCommand, LocalCommandsAndWaitingForAProcess)
{
    EXPECT_EQ(translate("info", nullptr).kind, Action::NEEDS_PROCESS);
    EXPECT_EQ(translate("wait 250", nullptr).waitMs, 250u);
    EXPECT_EQ(translate("  # a comment", nullptr).kind, Action::EMPTY);
    EXPECT_EQ(translate("quit", nullptr).kind, Action::QUIT);
    TraceSession s("P");
    EXPECT_EQ(translate("raw 12 5", &s).commands.at(0), (Bytes{12, 5, 0, 0, 0}));
    EXPECT_EQ(translate("silent on", &s).commands.at(0), (Bytes{4, 1, 0, 0, 0}));
    EXPECT_EQ(translate("kill", &s).commands.at(0), (Bytes{13, 0, 0, 0, 0}));
    EXPECT_EQ(translate("bogus", &s).kind, Action::ERROR);
    EXPECT_EQ(TraceUserCommand::split("a \"b c\" d\\ e"), (std::vector<std::string>{"a", "b c", "d e"}));
}
