// CJTDefaultBinaryTracePersistence: the binary trace settings kept in one file per process name.
//
// The block for process name N lives in the platform path "/var/lib/cbradio/trace/N.bin", taken
// under CBRADIO_ROOT like every platform path (so "$CBRADIO_ROOT/var/lib/cbradio/trace/N.bin").
// store creates the missing folders (0755) and replaces the file atomically (a new temporary file,
// opened O_EXCL | O_NOFOLLOW, renamed over it), so a crash never leaves half a block behind; a
// folder that others may write to without the sticky bit is refused (JTSafeFile). kill removes the file. A name that is
// empty or contains '/' is refused (nothing loaded, stored or removed).
//
// Errors: a file that cannot be read, written or removed is logged to the system log at severity 3
// ("Trace persistence: cannot <action> '<path>': <reason>") and otherwise treated as no block; a
// missing file is no block and not logged.
//
// Called on the trace thread only; the instance lives for the whole process.
#ifndef CJTDEFAULTBINARYTRACEPERSISTENCE_H
#define CJTDEFAULTBINARYTRACEPERSISTENCE_H

#include <string>

#include "IJTTracePersistence.h"

class CJTDefaultBinaryTracePersistence : public IJTTracePersistence
{
public:
    static CJTDefaultBinaryTracePersistence& getInstance();

    void load(const char* name, CJTByteStream& data) override;
    void store(const char* name, CJTByteStream& data) override;
    void kill(const char* name) override;
    bool isKillRequired() const override;

    // The host path of the block for name ("" for a refused name).
    static std::string getPath(const char* name);

    // The platform folder of the blocks.
    static const char* const sFolder;
};

#endif
