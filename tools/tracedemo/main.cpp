// tracedemo: a small program that traces through the framework the way the service does.
//
//   tracedemo [--tp=<text persistence file>] [--bp] [--seconds N]
//
// It starts the trace thread (registering as "tracedemo" with a trace server if one runs), then
// lets a sensor thread and a processing thread produce messages, warnings, errors and hex dumps
// for N seconds (default 3), or until SIGTERM or SIGINT, and ends cleanly (exit 0 once the trace
// thread has joined). It publishes two callbacks for the trace server's "call":
//   TraceDemo_echo(text: string, number: int) -> text: string, doubled: int; result number + 1
//   TraceDemo_answer(int) -> result argument + 40 Its scopes start with filter 0, so nothing is seen
// until a trace server or a persistence enables them; tools/tracedemo/console.tp sends everything
// to the console:
//
//   tracedemo --tp=tools/tracedemo/console.tp --seconds 1
#include <atomic>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>

#include "CJTDefaultBinaryTracePersistence.h"
#include "CJTThreadCtrl.h"
#include "CJTTraceCallback.h"
#include "CJTTraceScope.h"
#include "CJTTraceScopeDef.h"
#include "CTraceThread.h"
#include "JTOperatingSystem.h"

static CJTTraceScopeDef gsTraceServerScopeDef_TraceDemo_main_main("TraceDemo_main", "main");
static CJTTraceScopeDef gsTraceServerScopeDef_TraceDemo_CSensor_run("TraceDemo_CSensor", "run");
static CJTTraceScopeDef gsTraceServerScopeDef_TraceDemo_CSensor_sample("TraceDemo_CSensor", "sample");
static CJTTraceScopeDef gsTraceServerScopeDef_TraceDemo_CProcessor_run("TraceDemo_CProcessor", "run");
static CJTTraceScopeDef gsTraceServerScopeDef_TraceDemo_CProcessor_check("TraceDemo_CProcessor", "check");

static int echo(int);
static CJTTraceCallbackDef gsEcho(echo, "TraceDemo_echo", "echo a text, double a number");
static CJTTraceCallbackParam gsEchoText(gsEcho, "text", CJTTraceCallbackParam::TYPE_STRING);
static CJTTraceCallbackParam gsEchoNumber(gsEcho, "number", CJTTraceCallbackParam::TYPE_INT);
static CJTTraceCallbackRetVal gsEchoTextOut(gsEcho, "text", CJTTraceCallbackParam::TYPE_STRING);
static CJTTraceCallbackRetVal gsEchoDoubled(gsEcho, "doubled", CJTTraceCallbackParam::TYPE_INT);
static int echo(int)
{
    gsEchoTextOut.returnString(gsEchoText.getString(0).c_str());
    gsEchoDoubled.returnInt(gsEchoNumber.getInt(0) * 2);
    return gsEchoNumber.getInt(0) + 1;
}

static int answer(int argument)
{
    return argument + 40;
}
static CJTTraceCallbackDef gsAnswer(answer, "TraceDemo_answer", "add 40 to the argument");

namespace
{
std::atomic<uint32_t> gLatest{0};
std::atomic<bool> gStop{false};
std::atomic<bool> gSignalled{false};

void onSignal(int)
{
    gSignalled.store(true);
}

// Produces a reading every 200 ms and dumps the raw frame it came in.
class CSensor
{
public:
    void run()
    {
        CJTTraceScope scope(gsTraceServerScopeDef_TraceDemo_CSensor_run);
        scope.sendMessage("sensor thread running");
        uint32_t count = 0;
        while (!gStop.load()) {
            sample(++count);
            JTOperatingSystem::sleepMs(200);
        }
        scope.sendFormattedMessage("sensor thread done after %u samples", count);
    }

private:
    void sample(uint32_t count)
    {
        CJTTraceScope scope(gsTraceServerScopeDef_TraceDemo_CSensor_sample);
        uint8_t frame[14] = {0x0C, 12};
        for (int i = 2; i < 14; ++i)
            frame[i] = static_cast<uint8_t>(count * 31 + i * 7);
        uint32_t value = (count * 37) % 100;
        gLatest.store(value);
        scope.sendFormattedMessage("sample %u: value %u", count, value);
        scope.sendHexArray(frame, sizeof(frame));
    }
};

// Checks the latest reading twice a second and complains about unusual ones.
class CProcessor
{
public:
    void run()
    {
        CJTTraceScope scope(gsTraceServerScopeDef_TraceDemo_CProcessor_run);
        while (!gStop.load()) {
            check(gLatest.load());
            JTOperatingSystem::sleepMs(500);
        }
    }

private:
    void check(uint32_t value)
    {
        CJTTraceScope scope(gsTraceServerScopeDef_TraceDemo_CProcessor_check);
        if (value > 90)
            scope.sendFormattedError("value %u out of range", value);
        else if (value > 60)
            scope.sendFormattedWarning("value %u is high", value);
        else
            scope.sendFormattedMessage("value %u ok", value);
    }
};

int secondsFrom(int argc, char** argv)
{
    for (int i = 1; i + 1 < argc; ++i)
        if (strcmp(argv[i], "--seconds") == 0)
            return atoi(argv[i + 1]);
    return 3;
}
}

int main(int argc, char** argv)
{
    int seconds = secondsFrom(argc, argv);
    if (seconds < 0 || seconds > 3600) {
        fprintf(stderr, "tracedemo: --seconds must be between 0 and 3600\n");
        return 2;
    }

    std::signal(SIGTERM, onSignal);
    std::signal(SIGINT, onSignal);
    CTraceThread::CJTConfig config(argc, argv, "tracedemo", CJTDefaultBinaryTracePersistence::getInstance());
    CTraceThread* traceThread = new CTraceThread(config);
    pthread_t traceThreadId = CJTThreadCtrl::startThread(traceThread, false, CJTThreadCtrl::DEFAULTPRIORITY,
                                                         CJTThreadCtrl::DEFAULTSTACKSIZE);
    if (traceThreadId)
        CJTThreadCtrl::setThreadName(traceThreadId, "tracedemoTrace");

    {
        CJTTraceScope scope(gsTraceServerScopeDef_TraceDemo_main_main);
        scope.sendFormattedMessage("tracedemo running for %d s", seconds);

        CSensor sensor;
        CProcessor processor;
        std::thread sensorThread([&sensor] { sensor.run(); });
        std::thread processorThread([&processor] { processor.run(); });
        for (int tenths = 0; tenths < seconds * 10 && !gSignalled.load(); ++tenths)
            JTOperatingSystem::sleepMs(100);
        gStop.store(true);
        sensorThread.join();
        processorThread.join();

        scope.sendWarning("tracedemo stopping");
    }

    traceThread->stop();
    const bool joined = traceThreadId && CJTThreadCtrl::join(traceThreadId, 3000);
    delete traceThread;
    return joined ? 0 : 1;
}
