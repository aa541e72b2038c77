#include "PeerSpeaker.h"

#include <spawn.h>
#include <sys/wait.h>

#include <cstring>
#include <thread>
#include <vector>

extern char** environ;

void PeerSpeaker::speak(const std::string& text)
{
    if (mFolder.empty() || mMissing.load(std::memory_order_relaxed))
        return;
    const std::string file = mFolder + "/readout-" +
                             std::to_string(mCount.fetch_add(1, std::memory_order_relaxed) + 1) + ".wav";
    std::vector<std::string> args = {"espeak-ng", "-w", file, "--", text};
    std::vector<char*> argv;
    for (std::string& a : args)
        argv.push_back(&a[0]);
    argv.push_back(nullptr);
    pid_t pid = -1;
    int rc = ::posix_spawnp(&pid, "espeak-ng", nullptr, nullptr, argv.data(), environ);
    if (rc != 0) {
        mMissing.store(true, std::memory_order_relaxed);
        mLog.note(std::string("cannot run espeak-ng (") + std::strerror(rc) + "); read-outs are not spoken");
        return;
    }
    mLog.note("speaking into " + file);
    std::thread([pid] {
        int status = 0;
        ::waitpid(pid, &status, 0);
    }).detach();
}
