// A private CBRADIO_ROOT for one test: created empty, removed afterwards. Death-test children
// started while it exists inherit it through the environment.
#ifndef TEMPROOT_H
#define TEMPROOT_H

#include "JTRootPrefix.h"

#include <cstdlib>
#include <dirent.h>
#include <fstream>
#include <gtest/gtest.h>
#include <sstream>
#include <string>
#include <vector>

// Every death test of this binary re-executes it: the allocator and the handlers are process-wide.
// The flag is set once the flags exist, from a test environment.
struct ThreadsafeDeathTests : ::testing::Environment
{
    void SetUp() override { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};
inline ::testing::Environment* const kThreadsafeDeathTests =
    ::testing::AddGlobalTestEnvironment(new ThreadsafeDeathTests);

class TempRoot
{
public:
    TempRoot()
    {
        // A death-test child runs the test body again: it keeps the root its parent made.
        const char* inherited = std::getenv("CBRADIO_ROOT");
        mOwned = GTEST_FLAG_GET(internal_run_death_test).empty() || inherited == nullptr;
        if (!mOwned) {
            mPath = inherited;
            return;
        }
        char pattern[] = "/tmp/cbradio-base-XXXXXX";
        if (mkdtemp(pattern) != nullptr)
            mPath = pattern;
        setenv("CBRADIO_ROOT", mPath.c_str(), 1);
        JTRootPrefix::reload();
    }
    ~TempRoot()
    {
        if (!mOwned)
            return;
        unsetenv("CBRADIO_ROOT");
        JTRootPrefix::reload();
        if (!mPath.empty())
            (void)std::system(("rm -rf '" + mPath + "'").c_str());
    }
    const std::string& path() const { return mPath; }

    // Names in a folder below the root (empty when it does not exist).
    std::vector<std::string> list(const std::string& folder) const
    {
        std::vector<std::string> names;
        if (DIR* dir = opendir((mPath + folder).c_str())) {
            while (dirent* entry = readdir(dir))
                if (entry->d_name[0] != '.')
                    names.push_back(entry->d_name);
            closedir(dir);
        }
        return names;
    }

    static std::string read(const std::string& file)
    {
        std::ifstream in(file);
        std::stringstream text;
        text << in.rdbuf();
        return text.str();
    }

private:
    std::string mPath;
    bool mOwned;
};

#endif
