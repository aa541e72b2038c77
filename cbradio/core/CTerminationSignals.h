// CTerminationSignals: SIGINT, SIGHUP and SIGTERM turned into work on an ordinary thread.
//
// A signal handler may run on any thread at any instruction, so it must not trace, allocate or take
// a lock (a trace or a mutex held by the interrupted thread would deadlock it). record() is the
// whole of what a handler does: it writes the signal number into a pipe (async-signal-safe). The
// watch thread "CBRadioSignals" reads the pipe and calls the callback given to startWatch() with
// each signal number, in arrival order; that is where the traces and the exit request happen.
//
// requestStop() marks the process as stopping without a signal (for example when the bus is lost);
// the watch thread marks it too as soon as it reads a signal. Once stopping, pause() returns at
// once: the start sequence's pacing pauses use it so that a stop is never held up by them.
//
// Lifetime: install() once, early in main (it creates the pipe, so a signal that arrives before the
// watch thread runs is kept and handled when it starts). stopWatch() ends and joins the thread;
// signals recorded afterwards stay unread in the pipe. The pipe is never closed, so a late handler
// never writes to a descriptor that was reused.
//
// Threads: record() from signal handlers; everything else from any thread (startWatch/stopWatch
// from one controlling thread). Errors: install() and startWatch() return false when the pipe or
// the thread cannot be created; the process then simply stops on the flag without the traces.
#ifndef CTERMINATIONSIGNALS_H
#define CTERMINATIONSIGNALS_H

#include <csignal>

namespace CTerminationSignals
{
typedef void (*tOnSignal)(int sig);

bool install();
// Async-signal-safe: records sig for the watch thread.
void record(int sig);

// Starts the watch thread with the termination signals blocked on it.
bool startWatch(tOnSignal onSignal);
void stopWatch();

// Marks the process as stopping; a non-zero exitStatus becomes the process's exit status (the
// first one given wins).
void requestStop(int exitStatus = 0);
bool stopping();
int exitStatus();
// Sleeps ms milliseconds, or less when a stop is asked meanwhile. True when the whole pause
// elapsed, false when it ended early (or a stop had been asked before).
bool pause(unsigned int ms);

// Blocks the termination signals (and SIGUSR1 too when withTimerSignal) on the calling thread,
// which threads created by it inherit, and returns the mask it had, for pthread_sigmask
// (SIG_SETMASK) to restore. Used around the creation of every thread but the main one, so
// handlers never cut into their system calls.
sigset_t blockOnThisThread(bool withTimerSignal = false);
}

#endif
