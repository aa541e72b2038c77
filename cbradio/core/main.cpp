// cbradiod: the CB radio service daemon.
//
// Runs in the background (fork, new session, working directory "/", umask 022, standard streams
// kept; the parent exits 0). CBRADIO_FOREGROUND=1 skips the fork and the new session, for service
// managers and tests. SIGINT, SIGHUP and SIGTERM end it with exit status 0: their handler only
// records the signal (CTerminationSignals), and the thread "CBRadioSignals" traces it and asks the
// request worker to end; the start sequence's pauses end early once a stop is asked. A lost bus
// connection ends it the same way with exit status 1, so that a service manager restarts it.
// Every thread but the main one blocks the termination signals, so handlers never cut into their
// system calls. SIGPIPE is ignored so that a vanished peer only fails a write. The only
// command-line arguments are the trace start-up options ("--tp=FILE", "--bp", "--nobreak",
// "--memtrace=N"). Under systemd (Type=notify) it reports "READY=1" once up and running and
// "STOPPING=1" when the stop begins.
#include "CCBRadio.h"
#include "CServiceManager.h"
#include "CTerminationSignals.h"

#include "CJTDefaultBinaryTracePersistence.h"
#include "CJTThreadCtrl.h"
#include "CJTTraceScope.h"
#include "CJTTraceScopeDef.h"
#include "CTraceThread.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

static CJTTraceScopeDef gsTraceServerScopeDef_CBRadio_main_main("CBRadio_main", "main");
static CJTTraceScopeDef gsTraceServerScopeDef_CBRadio_signal_handler_signal_handler("CBRadio_signal_handler",
                                                                                    "signal_handler");

namespace
{
const int MAIN_PRIORITY = 50;
// stop() wakes the trace thread's read, so it ends at once; the bound only keeps a stuck one
// from holding up the exit.
const int TRACE_THREAD_JOIN_MS = 500;

bool runInForeground()
{
    const char* value = std::getenv("CBRADIO_FOREGROUND");
    return value != nullptr && std::strcmp(value, "1") == 0;
}

void becomeDaemon()
{
    if (!runInForeground()) {
        pid_t pid = ::fork();
        if (pid > 0)
            ::_exit(0);
        // A failed fork leaves us running in the foreground; a daemon that does not start at
        // all helps nobody.
        if (pid == 0)
            ::setsid();
    }
    if (::chdir("/") != 0) {
        // Staying in the start directory is harmless.
    }
    ::umask(022);
}

// Runs on the signal watch thread, once per signal received.
void onTerminationSignal(int sig)
{
    CJTTraceScope scope(gsTraceServerScopeDef_CBRadio_signal_handler_signal_handler);
    scope.sendFormattedMessage("[CBRadio] CAUTION!!! - CBRadio Service rcvd signal to exit (%d)\n", sig);
    sig_exit.store(1, std::memory_order_relaxed);
    if (CCBRadio::mpCBRadio != nullptr)
        CCBRadio::mpCBRadio->postRequest(REQ_CBR_EXIT);
}
}

// Installed for SIGINT, SIGHUP and SIGTERM. Only records the signal: see CTerminationSignals.
void signal_handler(int sig)
{
    CTerminationSignals::record(sig);
}

int main(int argc, char** argv)
{
    pthread_setschedprio(pthread_self(), MAIN_PRIORITY);
    pthread_setname_np(pthread_self(), "CBRadioMain");
    becomeDaemon();
    if (!CTerminationSignals::install())
        std::fprintf(stderr, "[CBRadio] Error: no signal pipe (%s); termination signals cannot stop the service\n",
                     std::strerror(errno));
    struct sigaction action = {};
    action.sa_handler = signal_handler;
    action.sa_flags = SA_RESTART;
    sigemptyset(&action.sa_mask);
    for (int sig : {SIGINT, SIGHUP, SIGTERM})
        ::sigaction(sig, &action, nullptr);
    ::signal(SIGPIPE, SIG_IGN);

    CTraceThread::CJTConfig config(argc, argv, "CBRadio", CJTDefaultBinaryTracePersistence::getInstance());
    CTraceThread* traceThread = new CTraceThread(config);
    sigset_t unblocked;
    pthread_sigmask(SIG_SETMASK, nullptr, &unblocked);
    CTerminationSignals::blockOnThisThread();
    pthread_t traceThreadId = CJTThreadCtrl::startThread(traceThread, false, CJTThreadCtrl::DEFAULTPRIORITY,
                                                         CJTThreadCtrl::DEFAULTSTACKSIZE);
    pthread_sigmask(SIG_SETMASK, &unblocked, nullptr);
    CJTThreadCtrl::setThreadName(traceThreadId, "CBRadioTraceThread");

    {
        CJTTraceScope scope(gsTraceServerScopeDef_CBRadio_main_main);
        CCBRadio radio;
        // Started once the service object exists; a signal that came earlier waits in the pipe.
        CTerminationSignals::startWatch(onTerminationSignal);
        radio.startService();
        scope.sendFormattedMessage("[CBRadio] Up and Running...");
        if (!CTerminationSignals::stopping())
            CServiceManager::notifyReady();
        radio.waitStop();
        CServiceManager::notifyStopping();
        radio.stopService();
        // No signal is handled from here on: the handler's work posts to the service object,
        // which goes at the end of this block.
        CTerminationSignals::stopWatch();
        scope.sendFormattedMessage("\n@ ----- Exiting CBRadio Service ----- @\n");
    }
    traceThread->stop();
    if (traceThreadId != 0 && !CJTThreadCtrl::join(traceThreadId, TRACE_THREAD_JOIN_MS)) {
        // A trace thread that does not end in time must not outlive the statics it uses: end the
        // process here, without running their destructors.
        std::fflush(nullptr);
        ::_exit(CTerminationSignals::exitStatus());
    }
    delete traceThread;
    return CTerminationSignals::exitStatus();
}
