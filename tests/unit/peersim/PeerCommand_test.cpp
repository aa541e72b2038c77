// The command language: the cases where a slip would send the wrong thing or swallow a word.
#include "PeerCommand.h"

#include <gtest/gtest.h>

namespace
{
PeerCommand parse(const std::string& line)
{
    return PeerCommand::parse(line);
}
}

TEST(PeerCommand, ServicesAreNamedByNameAliasOrBusNameInAnyCase)
{
    for (const char* word : {"AudioManager", "audiomanager", "AUDIO", "com.quorin.service.AudioManager"}) {
        PeerCommand c = parse(std::string("leave ") + word);
        ASSERT_EQ(PeerCommand::LEAVE, c.kind) << word << ": " << c.text;
        ASSERT_EQ(1u, c.peers.size());
        EXPECT_EQ(Peer::AudioManager, c.peers[0]);
    }
    EXPECT_EQ(7u, parse("join all").peers.size());
    EXPECT_EQ(7u, parse("silent *").peers.size());
}

// The e2e cooperation tests drive delays and answer modes on the bus, the integration test bus
// presence; here the defaults and the words that are easy to swallow.
TEST(PeerCommand, DelaysAndAnswerModesTakeOptionalWords)
{
    PeerCommand every = parse("delay tts 0x10");
    EXPECT_EQ("", every.method);
    EXPECT_EQ(16, every.number);
    EXPECT_EQ("", parse("delay audio * 5").method);
    EXPECT_EQ("org.freedesktop.DBus.Error.Failed", parse("fail kv").name);
    PeerCommand named = parse("fail kv read com.quorin.Error.Busy  store is busy ");
    EXPECT_EQ("read", named.method);
    EXPECT_EQ("store is busy", named.text);
    EXPECT_EQ("{\"action\": # not closed", parse("malformed audio * {\"action\": # not closed").text)
        << "free text keeps its '#'";
    EXPECT_EQ(AnswerMode::SILENT, parse("silent diag").mode);
    EXPECT_EQ(1000, parse("bounce audio").number);
    EXPECT_EQ(1500, parse("sleep 1.5").number);
    EXPECT_EQ(PeerCommand::NONE, parse("   # a note").kind);
    EXPECT_EQ(PeerCommand::VOX, parse("vox 1 # voice").kind) << "a '#' word ends a command without free text";
}

// What the signal commands send reaches the daemon in the e2e cooperation tests (the switches'
// press and release, the stored settings of "kv set"); here the words that are easy to get wrong.
TEST(PeerCommand, SignalsTakeTheirValuesAndPayloadsAsTyped)
{
    PeerCommand emit = parse("  emit can function_sw_9 {\"Value\": 2}  # rider ");
    EXPECT_EQ(Peer::CAN_HMI, emit.peers.at(0));
    EXPECT_EQ("function_sw_9", emit.name);
    EXPECT_EQ("{\"Value\": 2}  # rider", emit.text);
    EXPECT_EQ("", parse("emit can function_sw_9").text);
    EXPECT_EQ(-3, parse("power -3").number);
    EXPECT_EQ("media", parse("routing checked checked media").source);
    PeerCommand interrupt = parse("interrupt removed cbTX");
    EXPECT_EQ("removed", interrupt.name);
    EXPECT_EQ("cbTX", interrupt.text);
    EXPECT_EQ("success", parse("tts-result 0").text) << "results default their description from the code";
    EXPECT_EQ("failure", parse("tts-result 3").text);
    EXPECT_EQ("normal mode", parse("diag-reply 0 normal mode").text);
}

// Lines that must be refused rather than half understood.
TEST(PeerCommand, MalformedLinesAreErrors)
{
    // A signal has one sender, error names need a dot, no word may be missing or left over...
    for (const char* line :
         {"leave Radio", "emit all powerMode {}", "fail kv read Busy", "fail kv read a..b", "silent diag m extra",
          "emit can 9sw {}", "routing checked", "kv set k", "kv get", "kv drop k", "vox 1 2", "launch"})
        EXPECT_EQ(PeerCommand::ERROR, parse(line).kind) << line;
    // ...and numbers must fit and be whole.
    for (const char* line : {"delay audio -5", "delay audio soon", "delay audio add-src 5", "delay audio m 5 6",
                             "vox on", "power 99999999999", "sleep -1", "sleep nan", "sleep 1s"})
        EXPECT_EQ(PeerCommand::ERROR, parse(line).kind) << line;
}
