#include "CJTTraceChannel.h"

#include "CJTTraceCommand.h"
#include "CJTTraceHelper.h"
#include "CJTTraceMessageData.h"
#include "CJTVersion.h"
#include "JTOperatingSystem.h"
#include "JTSyslog.h"
#include "TJTDeviceStream.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

namespace
{
const unsigned int kSyslogModule = 0;
const char* const kRegisterNode = "/dev/mv2trace/register";
const char* const kNodeFolder = "/dev/mv2trace/";

// Hands commands to the trace helper, the usual receiver.
class CHelperCallback : public CJTTraceChannel::IJTCallback
{
public:
    void operator()(const CJTTraceCommand& command) override { CJTTraceHelper::getInstance().execute(command); }
};

CHelperCallback sHelperCallback;

std::string nodePath(const char* name)
{
    std::string path = kNodeFolder;
    if (name && *name)
        path += name;
    return path;
}
}

CJTTraceChannel::CJTTraceChannel(const char* name)
    : mConnected(0), mName(name), mpCallback(&sHelperCallback), mReaderTid(0), mDropped(0), mServerStalled(false)
{
}

CJTTraceChannel::CJTTraceChannel(IJTCallback& callback, const char* name)
    : mConnected(0), mName(name), mpCallback(&callback), mReaderTid(0), mDropped(0), mServerStalled(false)
{
}

CJTTraceChannel::~CJTTraceChannel()
{
    std::lock_guard<std::mutex> guard(mWriteLock);
    mDevice.close();
}

void CJTTraceChannel::closeDevice()
{
    std::lock_guard<std::mutex> guard(mWriteLock);
    mConnected.store(0, std::memory_order_relaxed);
    mDevice.close();
}

bool CJTTraceChannel::sendRegistrationRequest(const char* prefix, bool waitForAck)
{
    std::string request = std::string(prefix) + (mName ? mName : "");
    CJTIODevice reg;
    if (!reg.open(kRegisterNode, CJTIODevice::WRITE)) {
        // A removal that cannot even be sent is reported like one the server did not take.
        if (waitForAck)
            JTSyslog::logMsg(kSyslogModule, JTSyslog::SEV_CRITICAL, "Cannot connect to trace server: %d",
                             reg.getLastError());
        else
            JTSyslog::logMsg(kSyslogModule, JTSyslog::SEV_ERROR, "Cannot remove trace device: %s", request.c_str());
        return false;
    }
    int written = reg.write(request.c_str(), request.size() + 1);
    if (written >= 1 && waitForAck) {
        // The server creates our node before it closes this connection: wait for the close.
        uint64_t deadline = JTOperatingSystem::getMonotonicTime() + REGISTRATION_ACK_TIMEOUT_MS * 1000000ull;
        char scratch[64];
        for (;;) {
            uint64_t now = JTOperatingSystem::getMonotonicTime();
            if (now >= deadline)
                break;
            JTOperatingSystem::setKernelTimeout(deadline - now);
            if (reg.read(scratch, sizeof scratch) <= 0)
                break;
        }
    }
    reg.close();
    if (written < 1 && !waitForAck)
        JTSyslog::logMsg(kSyslogModule, JTSyslog::SEV_ERROR, "Cannot remove trace device: %s", request.c_str());
    return written >= 1;
}

bool CJTTraceChannel::connect()
{
    std::string path = nodePath(mName);
    {
        std::lock_guard<std::mutex> guard(mWriteLock);
        if (mDevice.isOpened() || mDevice.open(path.c_str(), CJTIODevice::READWRITE)) {
            mDropped = 0;
            mServerStalled = false;
            mConnected.store(1, std::memory_order_relaxed);
            return true;
        }
    }
    const uint64_t mkSentNs = JTOperatingSystem::getMonotonicTime();
    if (!sendRegistrationRequest("mk:", true))
        return false;
    // The server creates the node before it acknowledges; one that has not done so a second after
    // "mk:" is taken as absent, like one that cannot be reached: the process runs on without it.
    for (;;) {
        {
            std::lock_guard<std::mutex> guard(mWriteLock);
            if (mDevice.open(path.c_str(), CJTIODevice::READWRITE)) {
                mDropped = 0;
                mServerStalled = false;
                mConnected.store(1, std::memory_order_relaxed);
                return true;
            }
        }
        if (JTOperatingSystem::getMonotonicTime() >= mkSentNs + REGISTRATION_ACK_TIMEOUT_MS * 1000000ull)
            break;
        JTOperatingSystem::sleepMs(NODE_RETRY_MS);
    }
    JTSyslog::logMsg(kSyslogModule, JTSyslog::SEV_CRITICAL, "Cannot open trace device: %d", mDevice.getLastError());
    return false;
}

void CJTTraceChannel::disconnect()
{
    bool wasConnected;
    {
        std::lock_guard<std::mutex> guard(mWriteLock);
        wasConnected = mConnected.exchange(0, std::memory_order_relaxed) != 0;
        mDevice.close();
    }
    if (wasConnected)
        sendRegistrationRequest("rm:", false);
}

bool CJTTraceChannel::writeMessage(const CJTTraceMessageData& message)
{
    if (!isConnected())
        return false;
    CJTByteStream buffer(message.getSerializedSize());
    message.serialize(buffer);
    // Only the thread serving the server's commands may wait for room, for the replies the server
    // asked for; and never while holding the lock, which covers only sends that do not wait, so a
    // server that stops reading slows no traced thread and no closing of the channel.
    const bool isReply = mReaderTid.load(std::memory_order_relaxed) == JTOperatingSystem::getCurrentTID();
    const uint64_t deadline = JTOperatingSystem::getMonotonicTime() + REPLY_WAIT_MS * 1000000ull;
    for (;;) {
        {
            std::lock_guard<std::mutex> guard(mWriteLock);
            if (!mDevice.isOpened() || !isConnected())
                return false;
            int sent = mDropped != 0 ? sendDropWarning() : SENT;
            if (sent == SENT)
                sent = sendNow(buffer.getData(), buffer.getSize());
            if (sent == SENT) {
                mServerStalled = false;
                return true;
            }
            if (sent == BROKEN)
                return false;
            if (!isReply || mServerStalled || JTOperatingSystem::getMonotonicTime() >= deadline) {
                // Lost; the next record that goes says so. A reply that waited in vain marks the
                // server as stalled: further replies do not wait until one goes through again.
                ++mDropped;
                mServerStalled = mServerStalled || isReply;
                return false;
            }
        }
        uint64_t now = JTOperatingSystem::getMonotonicTime();
        if (now < deadline)
            mDevice.waitWritable(static_cast<int>((deadline - now + 999999) / 1000000));
    }
}

int CJTTraceChannel::sendDropWarning()
{
    char text[MAX_DROP_TEXT];
    std::snprintf(text, sizeof text, "%u trace records dropped", mDropped);
    CJTTraceMessageData warning =
        CJTTraceMessageData::makeLogMessage(DROP_WARNING_CODE, JTOperatingSystem::currentTimeMs(),
                                            static_cast<uint32_t>(JTOperatingSystem::getCurrentPID()),
                                            static_cast<uint16_t>(mDropped > 0xFFFF ? 0xFFFF : mDropped), text);
    CJTByteStream buffer(warning.getSerializedSize());
    warning.serialize(buffer);
    int sent = sendNow(buffer.getData(), buffer.getSize());
    if (sent == SENT)
        mDropped = 0;
    return sent;
}

int CJTTraceChannel::sendNow(const void* data, size_t size)
{
    int written = mDevice.writeNow(data, size);
    if (written == static_cast<int>(size))
        return SENT;
    if (written < 0 && (errno == EAGAIN || errno == EWOULDBLOCK))
        return FULL;
    JTSyslog::logMsg(kSyslogModule, JTSyslog::SEV_ERROR, "Error during write(), closing trace device [%d]",
                     mDevice.getLastError());
    // The trace thread may be waiting on this node; it closes it when its read returns.
    mConnected.store(0, std::memory_order_relaxed);
    return BROKEN;
}

uint32_t CJTTraceChannel::getDroppedCount()
{
    std::lock_guard<std::mutex> guard(mWriteLock);
    return mDropped;
}

void CJTTraceChannel::wakeReader()
{
    mDevice.shutdown();
}

bool CJTTraceChannel::readMessage(uint32_t timeoutMs)
{
    mReaderTid.store(JTOperatingSystem::getCurrentTID(), std::memory_order_relaxed);
    if (!mDevice.isOpened())
        return false;
    if (!isConnected()) {
        closeDevice();  // a writer found the channel broken
        return false;
    }
    TJTDeviceStream<CJTIODevice, TJTDeviceStreamFeatureReadWrite<CJTIODevice>> stream(mDevice, timeoutMs);
    CJTTraceCommand command;
    command.readFrom(stream);
    if (stream.isTimedOut())
        return false;
    if (stream.isError() || stream.isEnd()) {
        // A read of 0 bytes without time-out means the server has gone; that too ends the channel.
        JTSyslog::logMsg(kSyslogModule, JTSyslog::SEV_ERROR, "Error during read(), closing trace device");
        closeDevice();
        return false;
    }
    if (mpCallback)
        (*mpCallback)(command);
    return true;
}

bool CJTTraceChannel::getTraceServerVersion(CJTVersion& version)
{
    version = CJTVersion::invalid;
    bool openedHere = false;
    uint8_t answer[6] = {0, 0, 0, 0, 0, 0};
    int rc;
    {
        std::lock_guard<std::mutex> guard(mWriteLock);
        if (!mDevice.isOpened()) {
            if (!mDevice.open(kRegisterNode, CJTIODevice::READ))
                return false;
            openedHere = true;
        }
        rc = mDevice.devctl(DEVCTL_GET_SERVER_VERSION, answer, sizeof answer);
        if (openedHere)
            mDevice.close();
    }
    if (rc != 0)
        return false;
    version = CJTVersion(static_cast<uint16_t>(answer[0] | answer[1] << 8),
                         static_cast<uint16_t>(answer[2] | answer[3] << 8),
                         static_cast<uint16_t>(answer[4] | answer[5] << 8));
    return true;
}
