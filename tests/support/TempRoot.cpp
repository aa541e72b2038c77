#include "TempRoot.h"

#include "JTRootPrefix.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <system_error>

TempRoot::TempRoot(Export exported)
{
    const char* inherited = std::getenv("CBRADIO_ROOT");
    if (exported == Export::Yes && inherited != nullptr && !GTEST_FLAG_GET(internal_run_death_test).empty()) {
        mOwned = false;
        mPath = inherited;
        return;
    }
    char pattern[] = "/tmp/cbradio-test-XXXXXX";
    if (::mkdtemp(pattern) != nullptr)
        mPath = pattern;
    if (exported == Export::Yes) {
        ::setenv("CBRADIO_ROOT", mPath.c_str(), 1);
        JTRootPrefix::reload();
        mExported = true;
    }
}

TempRoot::~TempRoot()
{
    if (!mOwned)
        return;
    if (mExported) {
        ::unsetenv("CBRADIO_ROOT");
        JTRootPrefix::reload();
    }
    if (!mPath.empty() && std::getenv("CBRADIO_KEEP_ROOT") == nullptr) {
        std::error_code ignored;
        std::filesystem::remove_all(mPath, ignored);
    }
}

std::vector<std::string> TempRoot::list(const std::string& folder) const
{
    std::vector<std::string> names;
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator(mPath + "/" + folder, error))
        names.push_back(entry.path().filename().string());
    return names;
}
