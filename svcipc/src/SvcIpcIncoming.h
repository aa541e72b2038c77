// SvcIpcIncoming: turns a message read from the bus into what the library does with it.
//
// Everything here works on one libdbus message and plain values, with no connection and no locks,
// so the part of the library that takes outside bytes can be tested and fuzzed on its own.
// classify() never fails: a message the library has no use for becomes Kind::Ignore. The texts of
// an Incoming point into its message (never null, "" where absent): they are valid as long as the
// caller holds a reference to the message, and nothing is copied per message.
// routeCall() decides how a method call is answered; buildReply() makes the bus reply for the
// answers the library gives itself (errors, introspection, peer).
#ifndef SVCIPC_INCOMING_H
#define SVCIPC_INCOMING_H

#include <dbus/dbus.h>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace svcipc
{

enum class Kind {
    Ignore,
    MethodCall,
    Signal,
    Reply,  // a method return
    ErrorReply,
    Disconnected  // libdbus's own note that the bus connection was lost
};

struct Incoming
{
    Kind kind = Kind::Ignore;
    const char* path = "";
    const char* interface = "";
    const char* member = "";
    const char* sender = "";
    const char* signature = "";
    const char* text = "";  // call: the argument ("" without one); signal/reply: first string
    bool hasText = false;   // signal: the first argument is a string
    bool noReply = false;
    uint32_t serial = 0;
    uint32_t replySerial = 0;
    const char* errName = "";  // error replies
    const char* errMsg = "";
    bool ownerChange = false;  // NameOwnerChanged from the bus daemon
    const char* ownerName = "";
    const char* oldOwner = "";
    const char* newOwner = "";
};

Incoming classify(DBusMessage* msg);

enum class Route {
    ToService,   // hand to the request callback with Incoming::text
    Introspect,  // answer with CallDecision::body (XML)
    PeerPing,
    PeerMachineId,
    Error  // answer with CallDecision::errName / errMsg
};

struct CallDecision
{
    Route route = Route::Error;
    std::string errName;
    std::string errMsg;
    std::string body;
};

// serviceName: the bus name registered at the call's path, or null when nothing is registered
// there. interfacesXml: the <interface> elements of the path's description, or null when it has
// none (Introspect then shows an empty interface named after the service). registeredPaths:
// every path served on the connection (only asked for introspection).
CallDecision routeCall(const Incoming& call, const std::string* serviceName, const std::string* interfacesXml,
                       const std::function<std::vector<std::string>()>& registeredPaths);

// The reply the library sends itself for a decision other than ToService; null when the caller
// asked for no reply or memory ran out.
DBusMessage* buildReply(DBusMessage* call, const Incoming& in, const CallDecision& decision);

// The error a call freed without a result is answered with: "UnknownMethod" unless the member is
// a method of the description (then the library's own "NoResult").
extern const char* const kNoResultError;
DBusMessage* buildNoResultReply(DBusMessage* call, bool memberDescribed);

// The error code (low 28 bits of a status) that a bus error name stands for.
uint32_t errorCodeForName(const char* errName);

// Whether a text can travel as a bus string (valid UTF-8, no NUL inside by construction).
bool isValidText(const char* text);

}  // namespace svcipc

#endif
