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
inline const bool kThreadsafeDeathTests = (GTEST_FLAG_SET(death_test_style, "threadsafe"), true);

class TempRoot
{
public:
    TempRoot()
    {
        char pattern[] = "/tmp/cbradio-base-XXXXXX";
        if (mkdtemp(pattern) != nullptr)
            mPath = pattern;
        setenv("CBRADIO_ROOT", mPath.c_str(), 1);
        JTRootPrefix::reload();
    }
    ~TempRoot()
    {
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
};

#endif
