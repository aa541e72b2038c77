#include "PeerLog.h"

#include <sys/time.h>
#include <time.h>

void PeerLog::line(const std::string& text)
{
    timeval now;
    ::gettimeofday(&now, nullptr);
    tm local;
    ::localtime_r(&now.tv_sec, &local);
    char stamp[32];
    std::snprintf(stamp, sizeof(stamp), "%02d:%02d:%02d.%03d ", local.tm_hour, local.tm_min, local.tm_sec,
                  static_cast<int>(now.tv_usec / 1000));
    std::string out = stamp + text + "\n";
    std::lock_guard<std::mutex> lock(mMutex);
    std::fputs(out.c_str(), stdout);
    std::fflush(stdout);
    if (mFile) {
        std::fputs(out.c_str(), mFile);
        std::fflush(mFile);
    }
}
