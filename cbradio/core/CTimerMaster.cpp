#include "CTimerMaster.h"

#include "CTimer.h"
#include "ITimerHandler.h"

#include <cerrno>
#include <cmath>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <mutex>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/timerfd.h>
#include <unistd.h>

CMutex gMutex;
std::atomic<CTimerMaster*> CTimerMaster::m_TimerMaster(nullptr);
std::atomic<unsigned int> CTimerMaster::m_RefCount(0);

namespace
{
// The epoll key of the wake-up descriptor; timer keys hold the descriptor shifted left by 8,
// so their low byte (the code) never collides with a key whose upper bits are all ones.
const uint64_t WAKE_KEY = ~static_cast<uint64_t>(0);

uint64_t timerKey(int fd, short code)
{
    return (static_cast<uint64_t>(fd) << 8) | static_cast<uint8_t>(code);
}

// The master's failures go to standard output like every "[GEN]" diagnostic of the core.
void reportFailure(const char* what)
{
    std::printf("[GEN] [TimerMaster] %s failed: %s\n", what, std::strerror(errno));
    std::fflush(stdout);
}

// SIGUSR1 only records the request in this pipe; the thread "TimerRelease" reads it and does
// the deletion (which joins the master thread) outside any signal handler. Both are made once
// per process and live to its end, so the handler never writes to a reused descriptor.
int gReleasePipe[2] = {-1, -1};
std::once_flag gReleaseOnce;

void* releaseLoop(void*)
{
    for (;;) {
        char request;
        const ssize_t n = ::read(gReleasePipe[0], &request, 1);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return nullptr;
        CTimerMaster::releaseTimerMaster();
    }
}

void startReleaseThread()
{
    // Without the pipe SIGUSR1 is ignored and a master whose last timer its own handler
    // stopped lives on, idle, until the next stop from outside.
    if (::pipe2(gReleasePipe, O_CLOEXEC) != 0) {
        reportFailure("release pipe");
        return;
    }
    // A handler must never block on a full pipe.
    if (::fcntl(gReleasePipe[1], F_SETFL, O_NONBLOCK) != 0) {
        reportFailure("release pipe");
        ::close(gReleasePipe[0]);
        ::close(gReleasePipe[1]);
        gReleasePipe[0] = gReleasePipe[1] = -1;
        return;
    }
    sigset_t all, previous;
    sigfillset(&all);
    pthread_sigmask(SIG_BLOCK, &all, &previous);
    pthread_t thread;
    if (::pthread_create(&thread, nullptr, &releaseLoop, nullptr) == 0) {
        ::pthread_setname_np(thread, "TimerRelease");
        ::pthread_detach(thread);
    }
    pthread_sigmask(SIG_SETMASK, &previous, nullptr);
}

// Owns a descriptor until it is released to its keeper.
struct Descriptor
{
    int fd;
    explicit Descriptor(int descriptor) : fd(descriptor) {}
    ~Descriptor()
    {
        if (fd >= 0)
            ::close(fd);
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    int release()
    {
        const int kept = fd;
        fd = -1;
        return kept;
    }
};

class SigUsr1Blocker
{
public:
    SigUsr1Blocker()
    {
        sigset_t set;
        sigemptyset(&set);
        sigaddset(&set, SIGUSR1);
        pthread_sigmask(SIG_BLOCK, &set, &mSaved);
    }
    ~SigUsr1Blocker() { pthread_sigmask(SIG_SETMASK, &mSaved, nullptr); }

private:
    sigset_t mSaved;
};
}

void timer_master_signal_handler(int sig)
{
    if (sig != SIGUSR1 || gReleasePipe[1] < 0)
        return;
    const int savedErrno = errno;
    const char request = 'r';
    ssize_t ignored = ::write(gReleasePipe[1], &request, 1);
    (void)ignored;
    errno = savedErrno;
}

CTimerMaster::CTimerMaster()
    : IThreadInterface("TimerMaster"), mChannelId(0), mWakeId(-1), mPulseCode(0), mCodeCounter(0), mThreadStarted(false)
{
    std::call_once(gReleaseOnce, startReleaseThread);
    ::signal(SIGUSR1, timer_master_signal_handler);
}

CTimerMaster::~CTimerMaster()
{
    resetTimerData();
}

CTimerMaster* CTimerMaster::getTimerMaster()
{
    if (m_TimerMaster.load(std::memory_order_acquire) == nullptr) {
        const std::lock_guard<CMutex> guard(gMutex);
        if (m_TimerMaster.load(std::memory_order_relaxed) == nullptr)
            m_TimerMaster.store(new CTimerMaster(), std::memory_order_release);
    }
    return m_TimerMaster.load(std::memory_order_acquire);
}

void CTimerMaster::releaseTimerMaster()
{
    const std::lock_guard<CMutex> guard(gMutex);
    CTimerMaster* master = m_TimerMaster.load(std::memory_order_relaxed);
    if (m_RefCount.load(std::memory_order_relaxed) == 0 && master != nullptr) {
        delete master;
        m_TimerMaster.store(nullptr, std::memory_order_release);
    }
}

bool CTimerMaster::initializeTimerChannel()
{
    if (mChannelId.load(std::memory_order_relaxed) > 0)
        return true;
    Descriptor epollFd(::epoll_create1(EPOLL_CLOEXEC));
    Descriptor wakeFd(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    epoll_event ev = {};
    ev.events = EPOLLIN;
    ev.data.u64 = WAKE_KEY;
    if (epollFd.fd < 0 || wakeFd.fd < 0 || ::epoll_ctl(epollFd.fd, EPOLL_CTL_ADD, wakeFd.fd, &ev) != 0) {
        reportFailure("timer channel");
        return false;
    }
    mWakeId = wakeFd.release();
    mChannelId.store(epollFd.release(), std::memory_order_relaxed);
    return true;
}

int CTimerMaster::generateCodeId()
{
    mCodeCounter = static_cast<unsigned char>(mCodeCounter + 1);
    return static_cast<signed char>(static_cast<unsigned char>(mCodeCounter + 4));
}

bool CTimerMaster::addTimer(CTimer* timer, bool periodic)
{
    if (timer == nullptr)
        return false;
    const std::lock_guard<CMutex> guard(gMutex);
    initializeTimerChannel();
    const short code = static_cast<short>(generateCodeId());
    timer->mCodeId = code;
    mPulseCode = code;

    const int channel = mChannelId.load(std::memory_order_relaxed);
    if (timer->mTimerId < 0)
        timer->mTimerId = ::timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC);
    epoll_event ev = {};
    ev.events = EPOLLIN;
    ev.data.u64 = timerKey(timer->mTimerId, code);
    bool armed = channel > 0 && timer->mTimerId >= 0;
    if (armed && ::epoll_ctl(channel, EPOLL_CTL_ADD, timer->mTimerId, &ev) != 0)
        armed = errno == EEXIST && ::epoll_ctl(channel, EPOLL_CTL_MOD, timer->mTimerId, &ev) == 0;
    if (!armed) {
        std::fflush(stdout);
        return false;
    }

    const unsigned long long ms = timer->mPeriod;
    itimerspec& setting = timer->mTimerSetting;
    setting.it_value.tv_sec = static_cast<time_t>(ms / 1000);
    setting.it_value.tv_nsec = static_cast<long>(std::fmod(static_cast<double>(ms), 1000.0) * 1e6);
    if (periodic)
        setting.it_interval = setting.it_value;
    else
        setting.it_interval = timespec{0, 0};
    if (::timerfd_settime(timer->mTimerId, 0, &setting, nullptr) != 0) {
        // Not armed: nothing inserted and no reference taken, as when the timer cannot be made.
        reportFailure("timerfd_settime");
        ::epoll_ctl(channel, EPOLL_CTL_DEL, timer->mTimerId, nullptr);
        return false;
    }

    {
        const std::lock_guard<CMutex> timers(mTimersMutex);
        if (mTimers.find(code) == mTimers.end())
            mTimers[code] = timer;
    }
    addRefCount();

    if (!mThreadStarted.load(std::memory_order_relaxed)) {
        mThreadStarted.store(true, std::memory_order_relaxed);
        SigUsr1Blocker inheritedByTheNewThread;
        createThread();
    }
    return true;
}

bool CTimerMaster::removeTimer(CTimer* timer)
{
    if (timer == nullptr)
        return true;
    timer->mTimerSetting = itimerspec();
    if (timer->mTimerId >= 0) {
        // Left out of the set below, a timer that could not be disarmed never fires a handler.
        if (::timerfd_settime(timer->mTimerId, 0, &timer->mTimerSetting, nullptr) != 0)
            reportFailure("timerfd_settime");
        const int channel = mChannelId.load(std::memory_order_relaxed);
        if (channel > 0)
            ::epoll_ctl(channel, EPOLL_CTL_DEL, timer->mTimerId, nullptr);
    }
    {
        const std::lock_guard<CMutex> timers(mTimersMutex);
        mTimers.erase(timer->mCodeId);
    }
    releaseRefCount();
    return true;
}

void CTimerMaster::addRefCount()
{
    m_RefCount.fetch_add(1, std::memory_order_relaxed);
}

void CTimerMaster::releaseRefCount()
{
    unsigned int count = m_RefCount.load(std::memory_order_relaxed);
    if (count != 0 && m_RefCount.fetch_sub(1, std::memory_order_relaxed) != 1)
        return;
    if (mThread != 0 && pthread_equal(mThread, pthread_self()))
        ::kill(::getpid(), SIGUSR1);
    else
        releaseTimerMaster();
}

void CTimerMaster::run()
{
    epoll_event events[16];
    while (mChannelId.load(std::memory_order_relaxed) >= 1 && mThreadStarted.load(std::memory_order_relaxed)) {
        int n = ::epoll_wait(mChannelId.load(std::memory_order_relaxed), events, 16, -1);
        if (n < 0) {
            if (errno == EINTR)
                continue;
            return;
        }
        for (int i = 0; i < n; ++i) {
            if (events[i].data.u64 == WAKE_KEY)
                return;
        }
        for (int i = 0; i < n; ++i) {
            const uint64_t key = events[i].data.u64;
            uint64_t expirations;
            if (::read(static_cast<int>(key >> 8), &expirations, sizeof(expirations)) < 0)
                continue;  // disarmed between the wake-up and now
            const short code = static_cast<signed char>(key & 0xFF);
            CTimer* timer = nullptr;
            {
                const std::lock_guard<CMutex> timers(mTimersMutex);
                const auto found = mTimers.find(code);
                if (found != mTimers.end())
                    timer = found->second;
            }
            if (timer == nullptr || timer->mCodeId != code || timer->mpHandler == nullptr)
                continue;
            timer->mpHandler->handleTimerEvent(timer);
        }
    }
}

void CTimerMaster::resetTimerData()
{
    const int channel = mChannelId.exchange(-1, std::memory_order_relaxed);
    if (mWakeId >= 0) {
        uint64_t one = 1;
        ssize_t ignored = ::write(mWakeId, &one, sizeof(one));
        (void)ignored;
    }
    waitStop();
    if (channel > 0)
        ::close(channel);
    if (mWakeId >= 0)
        ::close(mWakeId);
    mWakeId = -1;
    {
        const std::lock_guard<CMutex> timers(mTimersMutex);
        mTimers.clear();
    }
    mThreadStarted.store(false, std::memory_order_relaxed);
}
