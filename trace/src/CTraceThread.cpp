#include "CTraceThread.h"

#include "CJTTraceCallback.h"
#include "CJTTraceChannel.h"
#include "CJTTraceHelper.h"
#include "IJTTracePersistence.h"
#include "JTKernelTrace.h"

namespace
{
const unsigned int kThreadStartedEvent = 4;
}

CTraceThread::CJTConfig::CJTConfig(int argc, char** argv, const char* programName, IJTTracePersistence& persistence)
    : mArgc(argc), mArgv(argv), mProgramName(programName), mPersistence(persistence),
      mpChannel(new CJTTraceChannel(programName))
{
}

CTraceThread::CJTConfig::~CJTConfig()
{
    delete mpChannel;
}

CTraceThread::CTraceThread(const CJTConfig& config)
    : mpChannel(config.getChannel()), mpTraceHelper(CJTTraceHelper::getInstancePtr()), mRunning(1)
{
    if (!mpTraceHelper->getCallbackManager())
        mpTraceHelper->setCallbackManager(&CJTTraceCallbackManager::getInstance());
    mpTraceHelper->setPersistence(&config.getPersistence());
    mpTraceHelper->setChannel(mpChannel);
    mpTraceHelper->requestRegister(config.getProgramName());
    mpTraceHelper->initialize(config.getArgc(), config.getArgv(), true);
    JTKernelTrace::addStringUserEvent(kThreadStartedEvent, "TraceThread started!");
}

void CTraceThread::run()
{
    while (isRunning() && mpChannel->isConnected())
        mpChannel->readMessage(READ_TIMEOUT_MS);
}

CTraceThread::~CTraceThread()
{
    mpChannel->disconnect();
    mpTraceHelper->setChannel(nullptr);
    mpTraceHelper->setPersistence(nullptr);
}

void CTraceThread::stop()
{
    mRunning.store(0, std::memory_order_relaxed);
    mpChannel->wakeReader();
}
