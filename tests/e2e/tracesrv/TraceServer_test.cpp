// tracesrv and a traced program as real processes in a temporary CBRADIO_ROOT.
#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace
{
    std::string readFile(const std::string& path)
    {
        std::ifstream in(path);
        std::stringstream s;
        s << in.rdbuf();
        return s.str();
    }

    class Process
    {
    public:
        Process(const std::string& root, std::vector<std::string> args, const std::string& out,
                const std::string& err, bool syslogToStderr = false)
        {
            mPid = fork();
            if (mPid == 0)
            {
                setenv("CBRADIO_ROOT", root.c_str(), 1);
                if (syslogToStderr)
                    setenv("CBRADIO_SYSLOG_STDERR", "1", 1);
                if (!freopen(out.c_str(), "w", stdout) || !freopen(err.c_str(), "w", stderr) ||
                    !freopen("/dev/null", "r", stdin))
                    _exit(126);
                std::vector<char*> argv;
                for (auto& a : args)
                    argv.push_back(const_cast<char*>(a.c_str()));
                argv.push_back(nullptr);
                execv(argv[0], argv.data());
                _exit(127);
            }
        }
        ~Process()
        {
            if (mPid > 0)
            {
                kill(mPid, SIGKILL);
                waitpid(mPid, nullptr, 0);
            }
        }
        // Sends SIGTERM and returns the exit status (-1 if it did not end in time).
        int stop(int timeoutMs = 5000)
        {
            kill(mPid, SIGTERM);
            return wait(timeoutMs);
        }
        int wait(int timeoutMs)
        {
            for (int waited = 0; waited <= timeoutMs; waited += 20)
            {
                int status;
                if (waitpid(mPid, &status, WNOHANG) == mPid)
                {
                    mPid = -1;
                    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
                }
                std::this_thread::sleep_for(std::chrono::milliseconds(20));
            }
            return -1;
        }

    private:
        pid_t mPid = -1;
    };

    class TraceServerE2E : public ::testing::Test
    {
    protected:
        void SetUp() override
        {
            char tmpl[] = "/tmp/tracesrv_e2e_XXXXXX";
            ASSERT_NE(mkdtemp(tmpl), nullptr);
            mRoot = tmpl;
        }
        void TearDown() override { std::system(("rm -rf " + mRoot).c_str()); }

        std::string path(const char* name) const { return mRoot + "/" + name; }

        // Waits until the file contains text; true when it did in time.
        bool waitFor(const std::string& file, const std::string& text, int timeoutMs = 8000) const
        {
            for (int waited = 0; waited <= timeoutMs; waited += 50)
            {
                if (readFile(file).find(text) != std::string::npos)
                    return true;
                std::this_thread::sleep_for(std::chrono::milliseconds(50));
            }
            return false;
        }

        std::unique_ptr<Process> startServer(std::vector<std::string> extra)
        {
            std::vector<std::string> args = {TRACESRV_BIN, "--no-stdin", "--log=" + path("server.log")};
            args.insert(args.end(), extra.begin(), extra.end());
            auto p = std::make_unique<Process>(mRoot, args, path("server.out"), path("server.err"));
            EXPECT_TRUE(waitFor(path("server.log"), "listening on"));
            return p;
        }

        std::unique_ptr<Process> startSample()
        {
            return std::make_unique<Process>(mRoot, std::vector<std::string>{TRACED_SAMPLE_BIN, "--seconds=30"},
                                             path("sample.out"), path("sample.err"), true);
        }

        std::string mRoot;
    };
}

TEST_F(TraceServerE2E, ServesScopesFiltersAndCallbacksAndTheProgramOutlivesTheServer)
{
    auto server = startServer({"--cmd", "scopes", "--cmd", "filter Sample_CTicker msg", "--cmd",
                               "call Sample_echo \"hi there\" 21", "--cmd", "call Sample_answer 2"});
    auto sample = startSample();
    const std::string log = path("server.log");

    ASSERT_TRUE(waitFor(log, "Sample connected"));
    EXPECT_TRUE(waitFor(log, "Sample scope 1 Sample_CTicker_tick filter 0x00 media 0x01 event 0"));
    // The filter reaches the program: its next ticks arrive as messages.
    EXPECT_TRUE(waitFor(log, "MSG Sample_CTicker_tick: tick "));
    EXPECT_TRUE(waitFor(log, "return value 0 row 1 = \"hi there\""));
    EXPECT_TRUE(waitFor(log, "return value 1 row 1 = 42"));
    EXPECT_TRUE(waitFor(log, "callback 0 Sample_echo returned 22"));
    EXPECT_TRUE(waitFor(log, "callback 1 Sample_answer returned 42"));

    EXPECT_EQ(server->stop(), 0);
    size_t ticksAtStop = readFile(path("sample.out")).size();
    std::this_thread::sleep_for(std::chrono::milliseconds(2500));
    EXPECT_GT(readFile(path("sample.out")).size(), ticksAtStop) << "the program stopped with the server";
    EXPECT_NE(readFile(path("sample.err")).find("Error during read(), closing trace device"), std::string::npos);

    EXPECT_EQ(sample->stop(), 0);
    EXPECT_NE(readFile(path("sample.out")).find("exit joined=1"), std::string::npos);
}

TEST_F(TraceServerE2E, ServerOfAnotherMajorVersionLeavesTheProgramUntraced)
{
    auto server = startServer({"--version=2.0.0"});
    auto sample = startSample();
    EXPECT_TRUE(waitFor(path("sample.err"),
                        "Cannot use trace server: version is '2.0.0', app requires '1.0.0'. Please update!"));
    EXPECT_TRUE(waitFor(path("sample.out"), "tick 3"));
    EXPECT_EQ(readFile(path("server.log")).find("Sample registered"), std::string::npos);
    EXPECT_EQ(sample->stop(), 0);
}

TEST_F(TraceServerE2E, WithoutServerTheProgramRuns)
{
    auto sample = startSample();
    EXPECT_TRUE(waitFor(path("sample.err"), "Cannot connect to trace server: 3"));
    EXPECT_TRUE(waitFor(path("sample.out"), "tick 3"));
    EXPECT_EQ(sample->stop(), 0);
    EXPECT_NE(readFile(path("sample.out")).find("exit joined=1"), std::string::npos);
}
