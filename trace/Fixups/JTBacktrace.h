// JTBacktrace: post-mortem notes written just before the process ends.
//
// doBacktrace(message, directory, extension) appends to the file "<directory>/<name>.<extension>":
// "\n[backtrace] INFO - <message>\n", then "\n<information>\n", then the symbolised call stack of
// the calling thread (backtrace(3)). The information and the name part come from the installed
// provider; the default one gives "TID: <tid> PID: <pid>" and "PID<pid>".
// directory is a platform path resolved under CBRADIO_ROOT; the platform's shared-memory folder
// "/dev/shmem" (DEFAULT_DIRECTORY) is "/dev/shm" here. Missing folders are created (mode 0755).
// The file is made safely (JTSafeFile): the notes go to a new file opened O_EXCL | O_NOFOLLOW
// after a copy of the earlier notes, and that file is renamed over the old one; a folder that
// others may write to without the sticky bit is refused.
//
// Errors: when the folder is refused or the file cannot be made, "Cannot open <host path>\n" goes to standard error and
// false is returned.
//
// Usable when the heap is exhausted: no allocation happens here after the first call (the call
// stack machinery is loaded before main()). Any thread.
#ifndef JTBACKTRACE_H
#define JTBACKTRACE_H

#include <cstddef>

class JTBacktrace
{
public:
    static constexpr const char* DEFAULT_DIRECTORY = "/dev/shmem";

    // Fills info (the information line) and name (the file name part); both are zero-terminated
    // and may be cut to their sizes.
    typedef void (*tInfoProvider)(char* info, size_t infoSize, char* name, size_t nameSize);

    // null restores the default provider.
    static void setInfos(tInfoProvider provider);
    static bool doBacktrace(const char* message, const char* directory, const char* extension);

    // The host folder a platform directory maps to ("/dev/shmem" -> "<root>/dev/shm").
    // Returns false when it does not fit into size.
    static bool resolveDirectory(const char* directory, char* hostPath, size_t size);
};

#endif
