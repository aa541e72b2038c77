// PeerSpeaker: speaks read-out texts into WAV files, as the speech peer's audible side.
//
// With a folder given, each text is handed to espeak-ng (looked up in PATH) which writes
// "readout-<n>.wav" there; the program runs in the background and is reaped by a thread of its
// own, so a read-out never delays an answer. Without espeak-ng the first attempt is noted in the
// log and nothing else happens. With no folder, speak() does nothing.
#ifndef PEERSPEAKER_H
#define PEERSPEAKER_H

#include "PeerLog.h"

#include <atomic>
#include <string>

class PeerSpeaker
{
public:
    PeerSpeaker(PeerLog& log, std::string folder) : mLog(log), mFolder(std::move(folder)) {}
    void speak(const std::string& text);

private:
    PeerLog& mLog;
    std::string mFolder;
    std::atomic<unsigned> mCount{0};
    std::atomic<bool> mMissing{false};
};

#endif
