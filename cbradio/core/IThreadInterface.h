// IThreadInterface: base of every class that owns one POSIX thread (the request worker of
// CCBRadio, the V850 reader, the timer master).
//
// createThread() starts run() on a new thread with default attributes and names it after the
// object; a second call while a thread exists does nothing, so an object runs at most one thread
// at a time (after a join it can be started again). waitStop() joins, stop() cancels and joins.
// Failures are printed to standard output as "[GEN]" lines and otherwise ignored; nothing throws.
// The destructor neither stops nor joins the thread.
//
// Thread safety: createThread, waitStop and stop are called from one controlling thread; run()
// may call waitStop/stop on its own object, which is detected and refused with a message.
#ifndef ITHREADINTERFACE_H
#define ITHREADINTERFACE_H

#include <pthread.h>

class IThreadInterface
{
public:
    // A null name gives "MERIDOThread". Names longer than 63 characters are cut.
    explicit IThreadInterface(const char* name = nullptr);
    virtual ~IThreadInterface();

    // The thread's body.
    virtual void run() = 0;

    void createThread();
    // Joins the thread; returns the join's result (0 on success). Called with no thread, or from
    // the thread itself, it prints "waitstop : join call from the same thread" and returns 0.
    int waitStop();
    // Cancels and joins the thread; returns the number of characters of its last message.
    int stop();

    static void* threadFunction(void* object);

    pthread_t getThreadHandle() const { return mThread; }
    const char* getThreadName() const { return mName; }

protected:
    pthread_t mThread;  // 0 while no thread exists
    char mName[64];
};

#endif
