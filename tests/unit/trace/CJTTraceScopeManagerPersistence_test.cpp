// Settings blocks go through the real file persistence in a private root, text files through
// temporary files.
#include "CJTTraceScopeManager.h"

#include <gtest/gtest.h>

#include <fstream>
#include <memory>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>
#include <vector>

#include "CJTDefaultBinaryTracePersistence.h"
#include "CJTNullTracePersistence.h"
#include "CJTTraceHelper.h"
#include "CJTTraceScopeDef.h"
#include "ChildProcess.h"
#include "JTAssert.h"
#include "JTDeviceNode.h"
#include "TempRoot.h"
#include "TraceTestSupport.h"

using tracetest::Recorder;
using tracetest::settings;

namespace
{
// Routes the persistence diagnostics to the recorder and the system log to a list.
class PersistenceFixture : public ::testing::Test
{
protected:
    void SetUp() override
    {
        CJTTraceHelper::getInstance().setProcessName("unit_trace");
        mSaved = {getPersistenceScopeDef().getFilter(), getPersistenceScopeDef().getMedia()};
        getPersistenceScopeDef().setFilter(2 | 32 | 64);
        getPersistenceScopeDef().setMedia(Recorder::MEDIA);
    }
    void TearDown() override
    {
        getPersistenceScopeDef().setFilter(mSaved.first);
        getPersistenceScopeDef().setMedia(mSaved.second);
        manager().setSilent(false);
    }
    static CJTTraceScopeManager& manager() { return CJTTraceScopeManager::getInstance(); }

    // Diagnostics of the persistence scope (its filter leaves entry and exit out).
    std::vector<std::string> diagnostics() { return mRecorder.take(); }

    // A new settings file in the root; the loader takes host paths as they are.
    std::string textFile(const std::string& contents)
    {
        const std::string path = mRoot.path("settings" + std::to_string(++mFiles) + ".tp");
        std::ofstream(path) << contents;
        return path;
    }

    TempRoot mRoot;
    int mFiles = 0;
    const std::string mBlockFile = mRoot.path("var/lib/cbradio/trace/unit_trace.bin");
    CJTDefaultBinaryTracePersistence& mStore = CJTDefaultBinaryTracePersistence::getInstance();
    Recorder mRecorder;
    tracetest::SyslogLines mSyslog;
    std::pair<uint8_t, uint8_t> mSaved;
    const std::string mPid = "pid " + std::to_string(getpid()) + ": ";
};

std::string header(const char* version)
{
    return std::string("JTTracePersistence ") + version + "\n";
}
}

// The block is one silent byte (1: silent) and filter, media and kernel event of every scope.
TEST_F(PersistenceFixture, BinaryBlockRoundTripsAndRefusesOtherSizes)
{
    CJTTraceScopeDef a("Bin_A", "a", 0x42, 0x09);
    CJTTraceScopeDef b("Bin_B", "b");
    manager().configureScope(b.getIndex(), 0x7F, 0x0C, 5);
    manager().setSilent(true);
    EXPECT_TRUE(manager().storeBinaryPeristence(mStore, "unit_trace"));
    EXPECT_EQ(1, manager().getSettingsInStep());
    const size_t count = manager().getNumberOfScopes();
    std::string block = readFile(mBlockFile);
    ASSERT_EQ(3 * count + 1, block.size());
    EXPECT_EQ('\1', block[0]);
    EXPECT_EQ(std::string("\x42\x09\0\x7F\x0C\x05", 6), block.substr(1 + 3 * a.getIndex(), 6));

    manager().setSilent(false);
    manager().configureScope(a.getIndex(), 0, 0, 0);
    manager().configureScope(b.getIndex(), 0, 0, 0);
    block[0] = 2;  // anything but 1 is "not silent"
    std::ofstream(mBlockFile) << block;
    EXPECT_TRUE(manager().loadBinaryPersistence(mStore, "unit_trace"));
    EXPECT_FALSE(manager().isSilent());
    EXPECT_EQ("42 09 0", settings(a));
    EXPECT_EQ("7f 0c 5", settings(b));
    EXPECT_EQ(1, manager().getSettingsInStep());
    EXPECT_TRUE(mSyslog.take().empty());

    // One scope short: refused, nothing changed, the count found is reported.
    std::ofstream(mBlockFile) << block.substr(0, block.size() - 3);
    manager().configureScope(a.getIndex(), 0x01, 0x01);
    EXPECT_FALSE(manager().loadBinaryPersistence(mStore, "unit_trace"));
    EXPECT_EQ(0x01, a.getFilter());
    EXPECT_EQ(0, manager().getSettingsInStep());
    std::string mismatch = "Binary persistence for 'unit_trace' does not match: expected " + std::to_string(count) +
                           " scopes, but found " + std::to_string(count - 1) + ".";
    EXPECT_EQ(std::vector<std::string>{"3 " + mPid + mismatch}, mSyslog.take());
    EXPECT_EQ(std::vector<std::string>{"2 " + mismatch}, diagnostics());
    const std::string empty = "Binary persistence for 'other_process' is empty.";
    EXPECT_FALSE(manager().loadBinaryPersistence(mStore, "other_process"));
    EXPECT_EQ(std::vector<std::string>{"5 " + mPid + empty}, mSyslog.take());
    EXPECT_EQ(std::vector<std::string>{"64 " + empty}, diagnostics());
    EXPECT_EQ("", CJTDefaultBinaryTracePersistence::getPath("../unit_trace"));
}

TEST_F(PersistenceFixture, TextFileVersionsAreCheckedOnTheHeaderAndOnlyRegularFilesAreRead)
{
    CJTTraceScopeDef def("TextVer_A", "a");
    struct Case
    {
        const char* version;
        bool accepted;
    };
    for (Case c : {Case{"1.1.0", true}, Case{"1.0.9", true}, Case{"1.1.77", true}, Case{"1.2.0", false},
                   Case{"2.0.0", false}, Case{"0.9.0", false}}) {
        def.setFilter(0);
        const std::string file = textFile(header(c.version) + "TextVer_A 40 08\n");
        EXPECT_EQ(c.accepted, manager().loadTextPersistence(file.c_str())) << c.version;
        EXPECT_EQ(c.accepted ? 0x40 : 0, def.getFilter()) << c.version;
        const std::string refused = "2 Unable to load text trace persistence: '" + file + "' requires version " +
                                    c.version + ", but current version is 1.1.0.";
        EXPECT_EQ(c.accepted ? std::vector<std::string>{} : std::vector<std::string>{refused}, diagnostics());
    }
    const std::string noVersion = textFile("JTTracePersistence one\nTextVer_A 40 08\n");
    EXPECT_FALSE(manager().loadTextPersistence(noVersion.c_str()));
    EXPECT_FALSE(manager().loadTextPersistence("/nonexistent/unit_trace.tp"));
    EXPECT_EQ((std::vector<std::string>{
                  "2 Unable to load text trace persistence: '" + noVersion + "' does not include version info.",
                  "32 Unable to load text trace persistence: '/nonexistent/unit_trace.tp' does not exist"}),
              diagnostics());

    // A FIFO (which would wait for a writer) and a socket are refused at once, like an unreadable
    // file: with the assertion announced, it is only counted.
    const std::string fifo = mRoot.path("fifo.tp");
    const std::string socket = mRoot.path("socket.tp");
    ASSERT_EQ(0, mkfifo(fifo.c_str(), 0600));
    int listener = JTDeviceNode::listenHost(socket.c_str());
    ASSERT_GE(listener, 0);
    unsigned int occurred = CJTAsserter::getOccuredAssertions();
    CJTAsserter::setExpectedAssertions(occurred + 2);
    EXPECT_FALSE(manager().loadTextPersistence(fifo.c_str()));
    EXPECT_FALSE(manager().loadTextPersistence(socket.c_str()));
    EXPECT_EQ(occurred + 2, CJTAsserter::getOccuredAssertions());
    CJTAsserter::setExpectedAssertions(0);
    CJTAsserter::setOccuredAssertions(0);
    close(listener);
}

TEST_F(PersistenceFixture, TextFileSectionsPrefixesAndOverrides)
{
    CJTTraceScopeDef run("TextSec_CCBRadio", "run");
    CJTTraceScopeDef start("TextSec_CCBRadio", "start");
    CJTTraceScopeDef timer("TextSec_CTimer", "fire");
    manager().setSilent(true);  // loading a text file always ends silent mode

    const std::string file = textFile(header("1.1.0") + "# comment line\n"
                                                        "TextSec_CCBRadio 7f 1\n"
                                                        "\n"
                                                        "[other_process]\n"
                                                        "TextSec_CTimer ff ff\n"
                                                        "[unit_trace]\n"
                                                        "TextSec_CCBRadio_start 02 08 3\n"
                                                        "TextSec_CTimer 20\n"
                                                        "TextSec_Missing 1 1\n"
                                                        "[*]\n"
                                                        "TextSec_CTimer 40 4 1ff\n");
    EXPECT_TRUE(manager().loadTextPersistence(file.c_str()));
    EXPECT_FALSE(manager().isSilent());
    // The hex fields take at most two digits, so "1ff" gives 0x1F.
    EXPECT_EQ((std::vector<std::string>{"7f 01 0", "02 08 3", "40 04 1f"}),
              (std::vector<std::string>{settings(run), settings(start), settings(timer)}));

    // Empty lines are not counted.
    EXPECT_EQ((std::vector<std::string>{"2 " + file + ":8: Skipping invalid text persistence line 'TextSec_CTimer 20'",
                                        "32 " + file + ":9: No scope matches 'TextSec_Missing'"}),
              diagnostics());
}

TEST_F(PersistenceFixture, TextFileLongerThanOneChunkKeepsLinesWhole)
{
    std::vector<std::string> names;
    names.reserve(120);  // the definitions keep pointers to the names
    std::vector<std::unique_ptr<CJTTraceScopeDef>> defs;
    for (int i = 0; i < 120; ++i) {
        names.push_back("TextChunk_" + std::to_string(i));
        defs.emplace_back(new CJTTraceScopeDef(names.back().c_str(), "function_with_a_rather_long_name"));
    }
    // Each line is about 60 bytes, so chunk borders fall inside lines; the first pass sets 01,
    // the second the real value, so a line cut in two would leave a scope at 01.
    std::string text = header("1.1.0");
    for (const char* filter : {"01", "40"})
        for (int i = 0; i < 120; ++i)
            text += names[i] + "_function_with_a_rather_long_name " + filter + " 08 " + std::to_string(i % 10) + "\n";
    ASSERT_GT(text.size(), 8192u);
    EXPECT_TRUE(manager().loadTextPersistence(textFile(text).c_str()));
    for (int i = 0; i < 120; ++i)
        EXPECT_EQ("40 08 " + std::to_string(i % 10), settings(*defs[i])) << i;
    EXPECT_TRUE(diagnostics().empty());
}

TEST_F(PersistenceFixture, HelperActionsNeedANameAndARealPersistence)
{
    // A store that requires a kill has its block removed instead of loaded.
    struct SKilling : CJTDefaultBinaryTracePersistence
    {
        bool isKillRequired() const override { return true; }
    } killing;
    CJTTraceHelper& helper = CJTTraceHelper::getInstance();
    CJTTraceScopeDef def("HelperPers_A", "a", 0x40, 0x08);
    helper.setPersistence(&CJTNullTracePersistence::sInstance);
    EXPECT_FALSE(helper.storePersistent());
    helper.setPersistence(nullptr);
    EXPECT_FALSE(helper.loadPersistent());

    helper.setPersistence(&mStore);
    EXPECT_TRUE(helper.storePersistent());
    def.setFilter(0);
    EXPECT_TRUE(helper.loadPersistent());
    EXPECT_EQ(0x40, def.getFilter());
    std::ofstream(mBlockFile) << std::string(3 * manager().getNumberOfScopes() + 1, '\0');
    helper.setPersistence(&killing);
    helper.loadPersistent();
    EXPECT_NE(0, access(mBlockFile.c_str(), F_OK));
    EXPECT_EQ(0x40, def.getFilter());
    helper.setPersistence(nullptr);
}
