// CJTTraceChannel: this process's connection to the trace server over its device nodes.
//
// The server listens on "/dev/mv2trace/register". connect() first tries the process's own node
// "/dev/mv2trace/<name>" (it is there when the process was registered before); otherwise it sends
// "mk:<name>\0" on a registration connection, waits until the server closes that connection (its
// acknowledgement; at most 1 s) and opens the node, which the server has created by then.
// disconnect() closes the node and sends "rm:<name>\0". Paths go through CBRADIO_ROOT.
//
// Records go out with writeMessage, one write per record, from any thread, and never wait: a record
// the node cannot take at once (the server is not reading) is dropped and counted. The one
// exception is the thread that serves the server's commands (the one calling readMessage): its
// records are the replies the server asked for (lists of scopes and callbacks), so it waits up
// to one second for room before it drops one, and after such a drop no more until a record goes
// through again; it waits without holding the channel lock, and wakeReader() ends the wait. The next record
// that goes through is preceded by one warning, a class 38 record with sub-code 32 (warning),
// value = the count (at most 65535) and the text "<count> trace records dropped". Commands come in
// with readMessage, on the trace thread only, and are handed to the channel's callback (by default
// CJTTraceHelper::execute); wakeReader() releases a readMessage that is waiting, for the stop.
//
// Registration: a server that has not made the node one second after "mk:" was sent is taken as
// absent (logged as below); the process runs on and traces to its other media.
//
// Failures are written to the system log and leave the channel unconnected:
//   "Cannot connect to trace server: %d"          no registration node (severity 1)
//   "Cannot open trace device: %d"                 registered but no node within a second (1)
//   "Cannot remove trace device: %s"               the "rm:" request was not sent, also when the
//                                                  register node is gone (2)
//   "Error during write(), closing trace device [%d]"   a record was not written whole (2)
//   "Error during read(), closing trace device"    the node failed or the server went away (2)
// After a write failure the node is closed by the trace thread at its next read, so that no
// thread ever closes a descriptor another thread is blocked on.
#ifndef CJTTRACECHANNEL_H
#define CJTTRACECHANNEL_H

#include "CJTIODevice.h"
#include "IJTTraceChannel.h"

#include <atomic>
#include <cstdint>
#include <mutex>

class CJTTraceCommand;

class CJTTraceChannel : public IJTTraceChannel
{
public:
    // Receives every command read; runs on the thread that calls readMessage.
    class IJTCallback
    {
    public:
        virtual ~IJTCallback() {}
        virtual void operator()(const CJTTraceCommand& command) = 0;
    };

    enum {
        DEVCTL_GET_SERVER_VERSION = 0x40060502,
        REGISTRATION_ACK_TIMEOUT_MS = 1000,  // from "mk:" until the node must be there
        NODE_RETRY_MS = 50,                  // between attempts to open the node meanwhile
        DROP_WARNING_CODE = 32,              // sub-code of the dropped-records warning
        MAX_DROP_TEXT = 40,
        REPLY_WAIT_MS = 1000  // the longest the serving thread waits for room
    };

    // name: the process name (not copied; must outlive the channel). The callback is not owned.
    explicit CJTTraceChannel(const char* name);
    CJTTraceChannel(IJTCallback& callback, const char* name);
    ~CJTTraceChannel() override;

    bool writeMessage(const CJTTraceMessageData& message) override;
    bool connect() override;
    void disconnect() override;
    bool getTraceServerVersion(CJTVersion& version) override;
    bool isConnected() const override { return mConnected.load(std::memory_order_relaxed) != 0; }

    // Waits at most timeoutMs for one command and hands it to the callback. False when nothing
    // was handed on (time-out, not connected, woken, or the channel broke and is now closed).
    bool readMessage(uint32_t timeoutMs);
    // Makes a waiting readMessage return at once, and every later one, until the next connect.
    // Records still go out. Any thread.
    void wakeReader();
    // Records dropped since the last warning went out.
    uint32_t getDroppedCount();

    const char* getName() const { return mName; }

private:
    CJTTraceChannel(const CJTTraceChannel&) = delete;
    CJTTraceChannel& operator=(const CJTTraceChannel&) = delete;

    void closeDevice();
    bool sendRegistrationRequest(const char* prefix, bool waitForAck);
    // Both under mWriteLock. FULL: the node cannot take it now; BROKEN: the channel is now
    // unconnected (logged). A warning that went resets the count.
    enum { SENT, FULL, BROKEN };
    int sendNow(const void* data, size_t size);
    int sendDropWarning();

    std::atomic<uint8_t> mConnected;
    CJTIODevice mDevice;
    const char* mName;
    IJTCallback* mpCallback;
    std::mutex mWriteLock;             // one record at a time; open and close never race a write
    std::atomic<uint32_t> mReaderTid;  // the thread serving commands (last to call readMessage)
    uint32_t mDropped;                 // under mWriteLock
    bool mServerStalled;               // under mWriteLock: a reply waited in vain; replies do not wait
};

#endif
