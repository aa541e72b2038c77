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

TEST(JTStartupOptions, MemoryTraceTakesOnlyZeroOrOne)
{
    EXPECT_EQ(parse({}).memoryTraceLevel, 1u);
    EXPECT_EQ(parse({"--memtrace=0"}).memoryTraceLevel, 0u);
    EXPECT_EQ(parse({"--memtrace=0", "--memtrace=1"}).memoryTraceLevel, 1u) << "the last valid one counts";
    EXPECT_EQ(parse({"--memtrace=0", "--memtrace=5"}).memoryTraceLevel, 0u) << "levels above 1 are ignored";
    EXPECT_EQ(parse({"--memtrace=", "--memtrace=x"}).memoryTraceLevel, 1u);
    EXPECT_EQ(parse({"--memtrace=-1"}).memoryTraceLevel, 1u);
    EXPECT_EQ(parse({"--memtrace=0abc"}).memoryTraceLevel, 0u) << "read with %u, trailing text allowed";
    EXPECT_EQ(parse({"--memtrace 0", "memtrace=0"}).memoryTraceLevel, 1u);
}

TEST(JTStartupOptions, BreakIsOnUnlessExactlyNobreak)
{
    EXPECT_TRUE(parse({}).breakEnabled);
    EXPECT_TRUE(parse({"--nobreaks", "--NOBREAK", "nobreak"}).breakEnabled);
    EXPECT_FALSE(parse({"--tp=/x", "--nobreak", "--bp"}).breakEnabled);
    EXPECT_TRUE(JTStartupOptions::parse(0, nullptr).breakEnabled);
}

TEST(JTStartupOptions, CommandLineJoinsArgumentsAfterTheProgramName)
{
    EXPECT_EQ(join({"prog"}), "");
    EXPECT_EQ(join({"prog", "--bp", "a b", "c"}), "--bp a b c");
    EXPECT_EQ(join({"prog", "abcdef", "gh"}, 5), "abcd") << "cut, but terminated";
    EXPECT_EQ(JTStartupOptions::joinArguments(3, std::vector<const char*>{"p", "ab", "cd"}.data(), nullptr, 0), 5u);
}

TEST(JTStartupOptions, ThisProcessIsReadFromItsOwnCommandLine)
{
    const int argc = JTStartupOptions::getArgc();
    char** argv = JTStartupOptions::getArgv();
    ASSERT_GE(argc, 1);
    EXPECT_NE(std::strstr(argv[0], "unit_base_system"), nullptr);
    EXPECT_EQ(argv[argc], nullptr);
    EXPECT_EQ(std::string(JTStartupOptions::getCommandLine()), join(std::vector<const char*>(argv, argv + argc), 4096));
    EXPECT_EQ(JTStartupOptions::getMemoryTraceLevel(), 1u);
}
