// IJTTraceChannel: the connection of this process to the trace server, as the rest of the
// framework sees it. CJTTraceChannel is the implementation over the server's device nodes.
//
// writeMessage may be called from any thread (each record goes out whole, in one write); connect,
// disconnect and getTraceServerVersion belong to the trace thread.
#ifndef IJTTRACECHANNEL_H
#define IJTTRACECHANNEL_H

class CJTTraceMessageData;
struct CJTVersion;

class IJTTraceChannel
{
public:
    virtual ~IJTTraceChannel() {}
    // Sends one record; false when it was not (completely) written.
    virtual bool writeMessage(const CJTTraceMessageData& message) = 0;
    // Registers with the server if needed and opens the process's node; returns the connected flag.
    virtual bool connect() = 0;
    // Closes the node and asks the server to remove it. Always ends disconnected.
    virtual void disconnect() = 0;
    // Asks the server for its version; version is 0.0.0 (false returned) when it does not answer.
    virtual bool getTraceServerVersion(CJTVersion& version) = 0;
    virtual bool isConnected() const = 0;
};

#endif
