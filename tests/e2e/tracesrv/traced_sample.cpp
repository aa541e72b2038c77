// A small traced program for the tracesrv end-to-end tests: it starts the trace thread the way the
// daemon does, traces "tick <n>" every 100 ms through scope "Sample_CTicker_tick" (and prints the
// same line to standard output, so a test sees it carry on untraced), and publishes two callbacks:
//   Sample_echo(text: string, number: int) -> text: string, doubled: int; result = number + 1
//   Sample_answer(int) -> result = argument + 40
// Runs for 30 seconds or until SIGTERM/SIGINT.
#include "CJTDefaultBinaryTracePersistence.h"
#include "CJTThreadCtrl.h"
#include "CJTTraceCallback.h"
#include "CJTTraceScope.h"
#include "CJTTraceScopeDef.h"
#include "CTraceThread.h"

#include <atomic>
#include <csignal>
#include <cstdio>
#include <unistd.h>

static CJTTraceScopeDef gsTraceServerScopeDef_Sample_main_main("Sample_main", "main");
static CJTTraceScopeDef gsTraceServerScopeDef_Sample_CTicker_tick("Sample_CTicker", "tick");

static int echo(int);
static CJTTraceCallbackDef gsEcho(echo, "Sample_echo", "echo a text, double a number");
static CJTTraceCallbackParam gsEchoText(gsEcho, "text", CJTTraceCallbackParam::TYPE_STRING);
static CJTTraceCallbackParam gsEchoNumber(gsEcho, "number", CJTTraceCallbackParam::TYPE_INT);
static CJTTraceCallbackRetVal gsEchoTextOut(gsEcho, "text", CJTTraceCallbackParam::TYPE_STRING);
static CJTTraceCallbackRetVal gsEchoDoubled(gsEcho, "doubled", CJTTraceCallbackParam::TYPE_INT);

static int answer(int argument)
{
    return argument + 40;
}
static CJTTraceCallbackDef gsAnswer(answer, "Sample_answer", "add 40 to the argument");

static int echo(int)
{
    gsEchoTextOut.returnString(gsEchoText.getString(0).c_str());
    gsEchoDoubled.returnInt(gsEchoNumber.getInt(0) * 2);
    return gsEchoNumber.getInt(0) + 1;
}

static std::atomic<int> sStop{0};
static void onSignal(int)
{
    sStop.store(1, std::memory_order_relaxed);
}

int main(int argc, char** argv)
{
    std::signal(SIGTERM, onSignal);
    std::signal(SIGINT, onSignal);

    CTraceThread::CJTConfig config(argc, argv, "Sample", CJTDefaultBinaryTracePersistence::getInstance());
    CTraceThread* traceThread = new CTraceThread(config);
    pthread_t tid = CJTThreadCtrl::startThread(traceThread, false, CJTThreadCtrl::DEFAULTPRIORITY,
                                               CJTThreadCtrl::DEFAULTSTACKSIZE);
    CJTThreadCtrl::setThreadName(tid, "SampleTraceThread");
    {
        CJTTraceScope scope(gsTraceServerScopeDef_Sample_main_main);
        for (int n = 0; n < 300 && !sStop.load(std::memory_order_relaxed); ++n) {
            CJTTraceScope tick(gsTraceServerScopeDef_Sample_CTicker_tick);
            tick.sendFormattedMessage("tick %d", n);
            std::printf("tick %d\n", n);
            std::fflush(stdout);
            usleep(100000);
        }
    }
    traceThread->stop();
    bool joined = CJTThreadCtrl::join(tid, 3000);
    delete traceThread;
    std::printf("exit joined=%d\n", joined ? 1 : 0);
    return 0;
}
