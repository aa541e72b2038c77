// CJTIODevice: a handle on a platform device node, or on a device served inside the process.
//
// open(path, mode): mode READ (1), WRITE (2) or READWRITE (3); the node is opened close-on-exec
// through a CJTDeviceLink (a SOCK_SEQPACKET socket node or a character device, under CBRADIO_ROOT;
// no reconnection: a peer that hangs up reads as 0 bytes).
// An open device is closed first. If an in-process server is registered under the exact platform
// path (JTIODeviceServerRegistry), the handle belongs to that server and every call below goes to
// it instead of the operating system.
//
// read: one frame of at most len bytes. Returns the byte count, 0 when the peer has gone (last
// error ERR_NONE, errno 0) or when the calling thread's kernel time-out
// (JTOperatingSystem::setKernelTimeout) expired (last error ERR_TIMEOUT, errno ETIMEDOUT), and -1
// on any other failure (ERR_OTHER, errno kept). The time-out is consumed by the read.
// write: one frame; returns the count written or -1 (ERR_OTHER). A frame the node does not take
// within one second fails (errno ETIMEDOUT, still ERR_OTHER). No SIGPIPE is raised.
// writeNow: the same, but a frame the node cannot take at once fails with errno EAGAIN.
// waitWritable: waits at most timeoutMs until a write could go; true when it could (always for an
// in-process server), false on time-out or after shutdown.
// shutdown: wakes a read waiting on the node and makes later reads return at once, as after a
// time-out (0, ERR_TIMEOUT), until the next open; writes go on. For stopping the thread that
// reads; may be called from any thread while it reads.
// devctl: sends the control code (JTDeviceNode::control on a socket node, ioctl on a character
// device) and copies up to size answer bytes to data; returns 0 or an errno value (ETIMEDOUT gives
// ERR_TIMEOUT). EINTR is repeated everywhere. Calls on a closed handle fail with EBADF.
//
// Thread safety: one thread may read while others write, call devctl or shutdown; open and close
// must not race with other calls on the same handle.
#ifndef CJTIODEVICE_H
#define CJTIODEVICE_H

#include "CJTDeviceLink.h"

#include <atomic>
#include <cstddef>
#include <cstdint>

class IJTIODeviceServer
{
public:
    virtual ~IJTIODeviceServer() {}

    // handle identifies this opening; it is passed to every later call. Return false to refuse
    // (the open then fails with ERR_OTHER).
    virtual bool onOpen(int handle, const char* path, int accessMode) = 0;
    // timeoutNs: the caller's kernel time-out, or -1 when none was armed. Same results as read.
    virtual int onRead(int handle, void* buffer, size_t length, int64_t timeoutNs) = 0;
    virtual int onWrite(int handle, const void* buffer, size_t length) = 0;
    virtual int onDevctl(int handle, uint32_t code, void* data, size_t size) = 0;
    virtual void onClose(int handle) = 0;
    virtual bool onIsOpened(int handle) = 0;
    virtual int onGetLastError(int handle) = 0;
};

class JTIODeviceServerRegistry
{
public:
    // usage: the access modes (CJTIODevice::READ/WRITE bits) the server accepts; an open of the
    // path with any other mode fails with ERR_OTHER (errno EACCES). Returns false for a null
    // server or path, a usage of 0, or a path that already has a server. The server must outlive
    // its registration and every handle it opened.
    static bool registerServer(int usage, const char* path, IJTIODeviceServer* server);
    // Handles already opened stay with the server until closed.
    static bool unregisterServer(const char* path);

    // Used by CJTIODevice: the server for a path (null if none) and the server of a handle.
    static IJTIODeviceServer* findServer(const char* path, int& usage);
    static int attachHandle(IJTIODeviceServer* server);
    static IJTIODeviceServer* serverOf(int handle);
    static void detachHandle(int handle);
};

class CJTIODevice
{
public:
    enum { READ = 1, WRITE = 2, READWRITE = 3 };
    enum { ERR_NONE = 0, ERR_TIMEOUT = 1, ERR_OTHER = 3 };

    CJTIODevice();
    ~CJTIODevice();
    CJTIODevice(const CJTIODevice&) = delete;
    CJTIODevice& operator=(const CJTIODevice&) = delete;

    bool open(const char* platformPath, int accessMode);
    int read(void* buf, size_t len);
    int write(const void* buf, size_t len);
    int writeNow(const void* buf, size_t len);
    bool waitWritable(int timeoutMs);
    void shutdown();
    int devctl(uint32_t code, void* data, size_t size);
    void close();
    bool isOpened() const;
    int getLastError() const;

private:
    int writeWithin(const void* buf, size_t len, int timeoutMs);
    // The in-process server of mServerHandle; null, with errno EBADF and the last error
    // ERR_OTHER, when it has gone.
    IJTIODeviceServer* attachedServer();

    CJTDeviceLink mLink;          // the operating-system node, when not served in the process
    int mServerHandle;            // in-process server handle, -1 when none
    std::atomic<int> mLastError;  // set by reader and writer threads alike
};

#endif
