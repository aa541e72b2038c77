// ProcessInfo: what the load tool reads about the daemon from /proc.
//
// residentKb() reads VmRSS (and peakKb() VmHWM) from /proc/<pid>/status; -1 when the process is
// gone or the line is missing. findProcess() looks for a process whose command line starts with a
// program of that base name (as "cbradiod" or "/usr/sbin/cbradiod") and returns its id; 0 when
// there is none, -1 when there are several (the caller then needs a pid). No threads; no errors
// beyond these values.
#ifndef PROCESSINFO_H
#define PROCESSINFO_H

#include <sys/types.h>

#include <string>

long residentKb(pid_t pid);
long peakKb(pid_t pid);
pid_t findProcess(const std::string& baseName);

#endif
