// CTraceThread: the thread that serves the trace server for this process.
//
// Construction (on the creating thread) registers the process with the trace server under the
// configured program name, keeps the "--tp=" / "--bp" start-up options and applies the persisted
// trace settings. run() (on the trace thread) then reads the server's commands, each wait bounded
// to 2 s, and executes them, until stop() is called or the channel to the server breaks. Without a
// server, or with one of an incompatible version, run() returns at once and the process keeps
// running: only the trace-server output is missing, kernel events, system log and console still
// work. The destructor unregisters the process from the server.
//
// Usage:
//     CTraceThread::CJTConfig config(argc, argv, "CBRadio", CJTDefaultBinaryTracePersistence::getInstance());
//     CTraceThread* traceThread = new CTraceThread(config);
//     pthread_t tid = CJTThreadCtrl::startThread(traceThread, false, CJTThreadCtrl::DEFAULTPRIORITY,
//                                                CJTThreadCtrl::DEFAULTSTACKSIZE);
//     CJTThreadCtrl::setThreadName(tid, "CBRadioTraceThread");
//     ...
//     traceThread->stop(); CJTThreadCtrl::join(tid, 3000); delete traceThread;  // then config
//
// The configuration owns the channel and must outlive the thread object. Commands and trace
// callbacks run on the trace thread; stop() may be called from any thread and returns at once.
// No step of the stop (stop, join, delete) waits on a server that does not read.
#ifndef CTRACETHREAD_H
#define CTRACETHREAD_H

#include "CJTThreadCtrl.h"

#include <atomic>
#include <cstdint>

class CJTTraceChannel;
class CJTTraceHelper;
class IJTTracePersistence;

class CTraceThread : public CJTThreadCtrl::IRunnable
{
public:
    class CJTConfig
    {
    public:
        // argv is not copied and must outlive the configuration (main's argv does); programName is
        // the name the trace server shows and the name persisted settings are stored under.
        CJTConfig(int argc, char** argv, const char* programName, IJTTracePersistence& persistence);
        ~CJTConfig();

        int getArgc() const { return mArgc; }
        char** getArgv() const { return mArgv; }
        const char* getProgramName() const { return mProgramName; }
        IJTTracePersistence& getPersistence() const { return mPersistence; }
        CJTTraceChannel* getChannel() const { return mpChannel; }

    private:
        CJTConfig(const CJTConfig&) = delete;
        CJTConfig& operator=(const CJTConfig&) = delete;

        int mArgc;
        char** mArgv;
        const char* mProgramName;
        IJTTracePersistence& mPersistence;
        CJTTraceChannel* mpChannel;  // owned
    };

    explicit CTraceThread(const CJTConfig& config);

    // Serves commands until stop() or a broken channel; returns at once when not registered.
    void run() override;
    ~CTraceThread() override;
    // Clears the running flag and wakes the thread's wait for a command: run() returns at once,
    // also when the server has stopped reading.
    virtual void stop();

    bool isRunning() const { return mRunning.load(std::memory_order_relaxed) != 0; }

    // The longest run() waits for one command before it looks at the running flag again.
    enum { READ_TIMEOUT_MS = 2000 };

private:
    CTraceThread(const CTraceThread&) = delete;
    CTraceThread& operator=(const CTraceThread&) = delete;

    CJTTraceChannel* mpChannel;     // owned by the configuration
    CJTTraceHelper* mpTraceHelper;  // process singleton
    std::atomic<uint8_t> mRunning;
};

#endif
