// JTRootPrefix: the one place every absolute platform path goes through.
//
// CBRADIO_ROOT, when set and not empty, is a directory under which every absolute platform path
// of the process is resolved ("/dev/ipc/ch6" becomes "$CBRADIO_ROOT/dev/ipc/ch6"). Unset or empty,
// paths are used as they stand. A relative value is made absolute once, before main() runs (the
// daemon changes its working directory to "/" later). Paths a user types on a command line are not
// platform paths and do not go through here.
//
// Thread safety: the prefix is fixed before main() and only read afterwards.
#ifndef JTROOTPREFIX_H
#define JTROOTPREFIX_H

#include <string>

namespace JTRootPrefix
{
// The absolute prefix, without a trailing '/'; empty when CBRADIO_ROOT is unset or empty.
const std::string& get();

// The host path of a platform path: the prefix followed by the path. A null path gives "".
std::string resolve(const char* platformPath);

// Reads CBRADIO_ROOT again (for tests that change the environment); returns the new prefix.
const std::string& reload();
}

#endif
