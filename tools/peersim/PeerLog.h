// PeerLog: one time-stamped line per event, on standard output and in the --log file.
//
// Lines start with the local wall-clock time "HH:MM:SS.mmm " so they can be laid next to the
// daemon's trace. Any thread may write; lines never interleave.
#ifndef PEERLOG_H
#define PEERLOG_H

#include <cstdio>
#include <mutex>
#include <string>

class PeerLog
{
public:
    explicit PeerLog(FILE* file = nullptr) : mFile(file) {}
    void line(const std::string& text);
    void note(const std::string& text) { line("# " + text); }

private:
    std::mutex mMutex;
    FILE* mFile;
};

#endif
