// JTSafeFile: creating files so that no other local user can redirect or replace them.
//
// Files the process creates are opened with O_NOFOLLOW (a symbolic link planted at the name is
// never followed) and, when new, temporary or per-process, with O_EXCL; a finished file is put into
// place with rename(2), so readers see the old or the new content, never a half-written one. No
// file is created in a folder that others may write to unless the folder has the sticky bit
// (which stops them from removing or renaming our files there).
//
// Errors are returned (false, -1) with errno set: ENOTDIR for a folder that is no folder, EPERM
// for one writable by others without the sticky bit. Nothing allocates, so these may be used while
// the heap is exhausted. Any thread.
#ifndef JTSAFEFILE_H
#define JTSAFEFILE_H

#include <sys/types.h>

namespace JTSafeFile
{
// Creates the folder and every missing parent (like mkdir -p) with the given mode (0755 by
// default; the umask applies as well), then checks the folder itself with isSafeFolder.
bool makeFolder(const char* hostFolder, mode_t mode = 0755);

// True when the path names a folder (not a symbolic link to one) that others cannot write to,
// or that has the sticky bit.
bool isSafeFolder(const char* hostFolder);

// Opens a new file for writing with O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC. A leftover file
// of that name (an earlier process with the same id) is removed once and the open repeated.
// Returns the descriptor or -1.
int createExclusive(const char* hostPath, mode_t mode = 0644);
}

#endif
