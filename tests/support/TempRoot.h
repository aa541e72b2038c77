// TempRoot: a private, empty CBRADIO_ROOT for one test, removed (with everything in it) on
// destruction unless CBRADIO_KEEP_ROOT is set.
//
// By default the folder is exported as CBRADIO_ROOT and JTRootPrefix is reloaded, so this process
// resolves its device nodes and files below it; destruction unsets it again. Roots handed only to
// child processes are made with Export::No. A death-test child runs the test body again: it keeps
// the root its parent exported instead of making its own.
#ifndef TEMPROOT_H
#define TEMPROOT_H

#include <string>
#include <vector>

class TempRoot
{
public:
    enum class Export { Yes, No };

    explicit TempRoot(Export exported = Export::Yes);
    ~TempRoot();
    TempRoot(const TempRoot&) = delete;
    TempRoot& operator=(const TempRoot&) = delete;

    bool ok() const { return !mPath.empty(); }
    const std::string& path() const { return mPath; }
    std::string path(const std::string& relative) const { return mPath + "/" + relative; }
    // Names in a folder below the root, without dot entries (empty when it does not exist).
    std::vector<std::string> list(const std::string& folder) const;

private:
    std::string mPath;
    bool mOwned = true;
    bool mExported = false;
};

#endif
