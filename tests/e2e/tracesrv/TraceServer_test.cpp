// tracesrv and the traced demo program as real processes in a temporary CBRADIO_ROOT.
#include "ChildProcess.h"
#include "TempRoot.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

namespace
{
class TraceServerE2E : public ::testing::Test
{
protected:
    void SetUp() override { ASSERT_TRUE(mRoot.ok()); }

    std::string path(const std::string& name) const { return mRoot.path(name); }
    bool waitFor(const std::string& file, const std::string& text) const
    {
        return waitUntil([&] { return readFile(path(file)).find(text) != std::string::npos; }, 8000);
    }

    // A program in the root, its output in <name>.out and <name>.err.
    std::unique_ptr<ChildProcess> start(const std::vector<std::string>& args, const std::string& name)
    {
        ChildProcess::Io io;
        io.outPath = path(name + ".out");
        io.errPath = path(name + ".err");
        auto child = std::make_unique<ChildProcess>();
        const auto env = ChildProcess::environmentWith(
            {{"CBRADIO_ROOT", mRoot.path()}, {"CBRADIO_SYSLOG_STDERR", "1"}});
        EXPECT_TRUE(child->start(args, env, io));
        return child;
    }
    std::unique_ptr<ChildProcess> startServer(std::vector<std::string> args)
    {
        args.insert(args.begin(), {TRACESRV_BIN, "--no-stdin", "--log=" + path("server.log")});
        auto server = start(args, "server");
        EXPECT_TRUE(waitFor("server.log", "listening on"));
        return server;
    }
    std::unique_ptr<ChildProcess> startDemo(const std::string& name)
    {
        return start({TRACEDEMO_BIN, "--seconds", "60"}, name);
    }

    TempRoot mRoot{TempRoot::Export::No};
};
}

TEST_F(TraceServerE2E, ServesScopesFiltersAndCallbacksAndTheProgramOutlivesTheServer)
{
    auto server = startServer({"--cmd", "scopes", "--cmd", "filter TraceDemo_CSensor_sample msg", "--cmd",
                               "call TraceDemo_echo \"hi there\" 21", "--cmd", "call TraceDemo_answer 2"});
    auto demo = startDemo("demo");
    const std::string log = "server.log";

    ASSERT_TRUE(waitFor(log, "tracedemo connected"));
    EXPECT_TRUE(waitFor(log, "tracedemo scope 2 TraceDemo_CSensor_sample filter 0x00 media 0x01 event 0"));
    // The filter reaches the program: its next samples arrive as messages.
    EXPECT_TRUE(waitFor(log, "MSG TraceDemo_CSensor_sample: sample "));
    EXPECT_TRUE(waitFor(log, "return value 0 row 1 = \"hi there\""));
    EXPECT_TRUE(waitFor(log, "return value 1 row 1 = 42"));
    EXPECT_TRUE(waitFor(log, "callback 0 TraceDemo_echo returned 22"));
    EXPECT_TRUE(waitFor(log, "callback 1 TraceDemo_answer returned 42"));

    EXPECT_EQ(server->stop(5000), 0);
    EXPECT_EQ(demo->wait(2500), -1) << "the program stopped with the server";
    EXPECT_NE(readFile(path("demo.err")).find("Error during read(), closing trace device"), std::string::npos);
    EXPECT_EQ(demo->stop(5000), 0) << "a clean end: the trace thread joined";
}

// Without a server, or with one of another major version, the program runs untraced.
TEST_F(TraceServerE2E, WithoutAUsableServerTheProgramRunsUntraced)
{
    auto alone = startDemo("alone");
    EXPECT_TRUE(waitFor("alone.err", "Cannot connect to trace server: 3"));
    auto server = startServer({"--version=2.0.0"});
    auto demo = startDemo("demo");
    EXPECT_TRUE(
        waitFor("demo.err", "Cannot use trace server: version is '2.0.0', app requires '1.0.0'. Please update!"));
    for (const auto& program : {std::make_pair("alone", alone.get()), std::make_pair("demo", demo.get())}) {
        EXPECT_EQ(-1, program.second->wait(1000)) << program.first << " runs on untraced";
        EXPECT_EQ(0, program.second->stop(5000)) << program.first;
    }
    EXPECT_EQ(readFile(path("server.log")).find("tracedemo registered"), std::string::npos);
}
