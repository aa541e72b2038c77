// JTDeviceNode: opening platform device nodes on Linux.
//
// A device node (the V850 channel, the trace server's nodes) is either a Unix-domain
// SOCK_SEQPACKET socket, to which we connect, or a character device, which we open(2). Either way
// one write(2) carries one whole frame, one read(2) returns one whole frame, and a read of 0 bytes
// means the peer has gone. A device control request on a socket is one message holding the 32-bit
// request code (little-endian), answered by one message: a 32-bit status (0 or an errno value)
// followed by the output bytes; on a character device it is ioctl(2) with the same code.
//
// These functions only open and serve nodes; CJTDeviceLink reads and writes an open node with
// bounded waits, a wake-up for stopping, and reconnection of socket nodes whose peer hung up.
//
// Every function takes a platform path and resolves it under CBRADIO_ROOT (JTRootPrefix) unless
// its name says "Host". Errors are returned as -1 with errno set; nothing is printed here, callers
// print their own texts. All functions may be called from any thread.
#ifndef JTDEVICENODE_H
#define JTDEVICENODE_H

#include <cstddef>
#include <cstdint>

namespace JTDeviceNode
{
// Opens a platform node. accessMode is O_RDONLY, O_WRONLY or O_RDWR; further flags (O_CLOEXEC,
// O_NONBLOCK) may be or-ed in and apply to both kinds; a non-blocking socket connect fails with
// EAGAIN instead of waiting when the listener's backlog is full. Returns the descriptor, or -1 with errno set.
int open(const char* platformPath, int flags);
int openHost(const char* hostPath, int flags);

// Device control: sends code, waits at most timeoutMs for the answer (socket nodes only) and
// copies up to outSize output bytes to out (may be null); *outLen gets the count when given.
// Returns 0 when done, else a positive errno value (ETIMEDOUT, EPROTO for a malformed answer,
// or the status the server sent).
int control(int fd, uint32_t code, void* out, size_t outSize, size_t* outLen = nullptr, int timeoutMs = 2000);

// Server side, for simulators and tests: creates the parent folders, removes a stale node,
// binds and listens a SOCK_SEQPACKET socket (close-on-exec) at the host path. Returns the
// listening descriptor or -1 with errno set.
int listenHost(const char* hostPath, int backlog = 8);
int listen(const char* platformPath, int backlog = 8);

// Creates every missing folder of the path's parent (like mkdir -p of its dirname, mode 0755). Returns 0
// or -1 with errno set.
int makeParentDirs(const char* hostPath);
}

#endif
