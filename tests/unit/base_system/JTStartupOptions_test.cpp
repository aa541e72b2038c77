#include "JTStartupOptions.h"

#include <cstring>
#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace
{
JTStartupOptions::SOptions parse(std::vector<const char*> args)
{
    args.insert(args.begin(), "prog");
    return JTStartupOptions::parse(static_cast<int>(args.size()), args.data());
}

std::string join(std::vector<const char*> args, size_t outSize = 256)
{
    std::vector<char> out(outSize + 1, '#');
    JTStartupOptions::joinArguments(static_cast<int>(args.size()), args.data(), out.data(), outSize);
    return out.data();
}
}

// The memory trace level is read with %u (trailing text allowed), only 0 and 1 count, the last
// valid one wins; break is on unless an argument is exactly "--nobreak".
TEST(JTStartupOptions, MemoryTraceAndBreak)
{
    struct Case
    {
        std::vector<const char*> args;
        unsigned level;
        bool breaks;
    };
    const Case cases[] = {
        {{}, 1, true},
        {{"--memtrace=0", "--nobreak"}, 0, false},
        {{"--memtrace=0", "--memtrace=1"}, 1, true},
        {{"--memtrace=0", "--memtrace=5"}, 0, true},
        {{"--memtrace=", "--memtrace=x", "--memtrace=-1"}, 1, true},
        {{"--memtrace=0abc", "--nobreaks", "--NOBREAK", "nobreak"}, 0, true},
        {{"--memtrace 0", "memtrace=0", "--tp=/x", "--nobreak", "--bp"}, 1, false},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(parse(c.args).memoryTraceLevel, c.level) << (c.args.empty() ? "" : c.args[0]);
        EXPECT_EQ(parse(c.args).breakEnabled, c.breaks) << (c.args.empty() ? "" : c.args[0]);
    }
    EXPECT_TRUE(JTStartupOptions::parse(0, nullptr).breakEnabled);
}

TEST(JTStartupOptions, CommandLineJoinsTheArgumentsOfThisProcessAfterItsName)
{
    EXPECT_EQ(join({"prog"}), "");
    EXPECT_EQ(join({"prog", "--bp", "a b", "c"}), "--bp a b c");
    EXPECT_EQ(join({"prog", "abcdef", "gh"}, 5), "abcd") << "cut, but terminated";
    EXPECT_EQ(JTStartupOptions::joinArguments(3, std::vector<const char*>{"p", "ab", "cd"}.data(), nullptr, 0), 5u);
    const int argc = JTStartupOptions::getArgc();
    char** argv = JTStartupOptions::getArgv();
    ASSERT_GE(argc, 1);
    EXPECT_NE(std::strstr(argv[0], "unit_base_system"), nullptr);
    EXPECT_EQ(argv[argc], nullptr);
    EXPECT_EQ(std::string(JTStartupOptions::getCommandLine()), join(std::vector<const char*>(argv, argv + argc), 4096));
}
