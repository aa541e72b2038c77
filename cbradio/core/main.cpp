// cbradiod: the CB radio service daemon.
//
// Runs in the background (fork, new session, working directory "/", umask 0, standard streams
// kept; the parent exits 0). CBRADIO_FOREGROUND=1 skips the fork and the new session, for service
// managers and tests. SIGINT, SIGHUP and SIGTERM end it cleanly; every other thread of the service
// blocks them, so their handler runs on the main thread (one that arrives while the bus comes up is
// handled right after; one that arrives after the "Exiting" trace is ignored). SIGPIPE is ignored so that a vanished peer only fails a write. The only command-line arguments are the trace start-up
// options ("--tp=FILE", "--bp", "--nobreak", "--memtrace=N").
#include "CCBRadio.h"

#include "CJTDefaultBinaryTracePersistence.h"
#include "CJTThreadCtrl.h"
#include "CJTTraceScope.h"
#include "CJTTraceScopeDef.h"
#include "CTraceThread.h"

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

static CJTTraceScopeDef gsTraceServerScopeDef_CBRadio_main_main("CBRadio_main", "main");
static CJTTraceScopeDef gsTraceServerScopeDef_CBRadio_signal_handler_signal_handler("CBRadio_signal_handler", "signal_handler");

namespace
{
    const int MAIN_PRIORITY = 50;
    // The trace thread ends at most one read time-out after stop(); wait a little longer.
    const int TRACE_THREAD_JOIN_MS = 3000;

    bool runInForeground()
    {
        const char* value = std::getenv("CBRADIO_FOREGROUND");
        return value != nullptr && std::strcmp(value, "1") == 0;
    }

    // The termination handler traces and takes the request queue's lock, so it must not interrupt
    // a thread in the middle of a trace. The trace thread is therefore started with the
    // termination signals blocked (it inherits the mask); they reach the main thread, which spends
    // the run blocked in a join. Returns the mask to restore.
    sigset_t blockTerminationSignals()
    {
        sigset_t termination, previous;
        sigemptyset(&termination);
        sigaddset(&termination, SIGINT);
        sigaddset(&termination, SIGHUP);
        sigaddset(&termination, SIGTERM);
        pthread_sigmask(SIG_BLOCK, &termination, &previous);
        return previous;
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
        ::umask(0);
    }
}

void signal_handler(int sig)
{
    CJTTraceScope scope(gsTraceServerScopeDef_CBRadio_signal_handler_signal_handler);
    scope.sendFormattedMessage("[CBRadio] CAUTION!!! - CBRadio Service rcvd signal to exit (%d)\n", sig);
    sig_exit.store(1, std::memory_order_relaxed);
    if (CCBRadio::mpCBRadio != nullptr)
        CCBRadio::mpCBRadio->postRequest(REQ_CBR_EXIT);
}

int main(int argc, char** argv)
{
    pthread_setschedprio(pthread_self(), MAIN_PRIORITY);
    pthread_setname_np(pthread_self(), "CBRadioMain");
    becomeDaemon();
    ::signal(SIGINT, signal_handler);
    ::signal(SIGHUP, signal_handler);
    ::signal(SIGTERM, signal_handler);
    ::signal(SIGPIPE, SIG_IGN);

    CTraceThread::CJTConfig config(argc, argv, "CBRadio", CJTDefaultBinaryTracePersistence::getInstance());
    CTraceThread* traceThread = new CTraceThread(config);
    sigset_t unblocked = blockTerminationSignals();
    pthread_t traceThreadId = CJTThreadCtrl::startThread(traceThread, false, CJTThreadCtrl::DEFAULTPRIORITY,
                                                         CJTThreadCtrl::DEFAULTSTACKSIZE);
    pthread_sigmask(SIG_SETMASK, &unblocked, nullptr);
    CJTThreadCtrl::setThreadName(traceThreadId, "CBRadioTraceThread");

    {
        CJTTraceScope scope(gsTraceServerScopeDef_CBRadio_main_main);
        CCBRadio radio;
        radio.startService();
        scope.sendFormattedMessage("[CBRadio] Up and Running...");
        radio.waitStop();
        radio.stopService();
        scope.sendFormattedMessage("\n@ ----- Exiting CBRadio Service ----- @\n");
        // The handler posts to the service object, which goes now; a signal from here on is left
        // pending until the process has ended.
        blockTerminationSignals();
    }
    traceThread->stop();
    // A trace thread that does not end in time is left to the process exit rather than deleted
    // under its feet.
    if (traceThreadId == 0 || CJTThreadCtrl::join(traceThreadId, TRACE_THREAD_JOIN_MS))
        delete traceThread;
    return 0;
}
