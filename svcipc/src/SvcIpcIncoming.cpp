#include "SvcIpcIncoming.h"

#include "svcipc.h"

#include <algorithm>
#include <cstring>

namespace svcipc
{

namespace
{
const char* const kBusName = "org.freedesktop.DBus";
const char* const kIntrospectable = "org.freedesktop.DBus.Introspectable";
const char* const kPeer = "org.freedesktop.DBus.Peer";

const char* str(const char* s)
{
    return s ? s : "";
}

bool same(const char* a, const char* b)
{
    return std::strcmp(a, b) == 0;
}

// The first argument when it is a string; with scanAll, the first string argument anywhere.
bool firstString(DBusMessage* msg, bool scanAll, const char*& out)
{
    DBusMessageIter it;
    if (!dbus_message_iter_init(msg, &it))
        return false;
    do {
        if (dbus_message_iter_get_arg_type(&it) == DBUS_TYPE_STRING) {
            const char* s = nullptr;
            dbus_message_iter_get_basic(&it, &s);
            out = str(s);
            return true;
        }
        if (!scanAll)
            return false;
    } while (dbus_message_iter_next(&it));
    return false;
}

void readOwnerChange(DBusMessage* msg, Incoming& in)
{
    if (!same(in.sender, kBusName) || !same(in.interface, kBusName) || !same(in.member, "NameOwnerChanged") ||
        !same(in.signature, "sss"))
        return;
    DBusMessageIter it;
    const char** fields[3] = {&in.ownerName, &in.oldOwner, &in.newOwner};
    if (!dbus_message_iter_init(msg, &it))
        return;
    for (int i = 0; i < 3; ++i) {
        const char* s = nullptr;
        dbus_message_iter_get_basic(&it, &s);
        *fields[i] = str(s);
        dbus_message_iter_next(&it);
    }
    in.ownerChange = true;
}

const char* const kIntrospectHeader =
    "<!DOCTYPE node PUBLIC \"-//freedesktop//DTD D-BUS Object Introspection 1.0//EN\"\n"
    " \"http://www.freedesktop.org/standards/dbus/1.0/introspect.dtd\">\n"
    "<node>\n";

const char* const kStandardInterfaces = "  <interface name=\"org.freedesktop.DBus.Introspectable\">\n"
                                        "    <method name=\"Introspect\">\n"
                                        "      <arg name=\"xml_data\" type=\"s\" direction=\"out\"/>\n"
                                        "    </method>\n"
                                        "  </interface>\n"
                                        "  <interface name=\"org.freedesktop.DBus.Peer\">\n"
                                        "    <method name=\"Ping\"/>\n"
                                        "    <method name=\"GetMachineId\">\n"
                                        "      <arg name=\"machine_uuid\" type=\"s\" direction=\"out\"/>\n"
                                        "    </method>\n"
                                        "  </interface>\n";

// The names of the nodes directly below `path` that lead to a registered path.
std::vector<std::string> childNodes(const std::string& path, const std::vector<std::string>& all)
{
    std::string prefix = path == "/" ? "/" : path + "/";
    std::vector<std::string> children;
    for (const std::string& p : all) {
        if (p.size() <= prefix.size() || p.compare(0, prefix.size(), prefix) != 0)
            continue;
        std::string child = p.substr(prefix.size(), p.find('/', prefix.size()) - prefix.size());
        if (std::find(children.begin(), children.end(), child) == children.end())
            children.push_back(child);
    }
    std::sort(children.begin(), children.end());
    return children;
}

CallDecision error(const char* name, std::string msg)
{
    CallDecision d;
    d.route = Route::Error;
    d.errName = name;
    d.errMsg = std::move(msg);
    return d;
}
}  // namespace

Incoming classify(DBusMessage* msg)
{
    Incoming in;
    if (!msg)
        return in;
    in.path = str(dbus_message_get_path(msg));
    in.interface = str(dbus_message_get_interface(msg));
    in.member = str(dbus_message_get_member(msg));
    in.sender = str(dbus_message_get_sender(msg));
    in.signature = str(dbus_message_get_signature(msg));
    in.serial = dbus_message_get_serial(msg);
    in.replySerial = dbus_message_get_reply_serial(msg);
    in.noReply = dbus_message_get_no_reply(msg);

    switch (dbus_message_get_type(msg)) {
    case DBUS_MESSAGE_TYPE_METHOD_CALL:
        in.kind = Kind::MethodCall;
        if (same(in.signature, "s"))
            in.hasText = firstString(msg, false, in.text);
        break;
    case DBUS_MESSAGE_TYPE_SIGNAL:
        if (dbus_message_is_signal(msg, DBUS_INTERFACE_LOCAL, "Disconnected") && same(in.path, DBUS_PATH_LOCAL)) {
            in.kind = Kind::Disconnected;
            break;
        }
        in.kind = Kind::Signal;
        in.hasText = firstString(msg, false, in.text);
        readOwnerChange(msg, in);
        break;
    case DBUS_MESSAGE_TYPE_METHOD_RETURN:
        in.kind = Kind::Reply;
        in.hasText = firstString(msg, true, in.text);
        break;
    case DBUS_MESSAGE_TYPE_ERROR:
        in.kind = Kind::ErrorReply;
        in.errName = str(dbus_message_get_error_name(msg));
        firstString(msg, false, in.errMsg);
        break;
    default:
        break;
    }
    return in;
}

CallDecision routeCall(const Incoming& call, const std::string* serviceName, const std::string* interfacesXml,
                       const std::function<std::vector<std::string>()>& registeredPaths)
{
    const char* path = call.path;
    if (same(call.interface, kPeer)) {
        CallDecision d;
        if (same(call.member, "Ping") && !*call.signature) {
            d.route = Route::PeerPing;
            return d;
        }
        if (same(call.member, "GetMachineId") && !*call.signature) {
            d.route = Route::PeerMachineId;
            return d;
        }
        return error(DBUS_ERROR_UNKNOWN_METHOD,
                     "Unknown method '" + std::string(call.member) + "' of interface " + kPeer);
    }

    if (same(call.interface, kIntrospectable)) {
        if (!same(call.member, "Introspect") || *call.signature)
            return error(DBUS_ERROR_UNKNOWN_METHOD,
                         "Unknown method '" + std::string(call.member) + "' of interface " + kIntrospectable);
        std::vector<std::string> children = childNodes(path, registeredPaths());
        if (!serviceName && children.empty())
            return error(DBUS_ERROR_UNKNOWN_OBJECT, std::string("No such object path '") + path + "'");
        CallDecision d;
        d.route = Route::Introspect;
        d.body = kIntrospectHeader;
        d.body += kStandardInterfaces;
        if (serviceName && interfacesXml)
            d.body += *interfacesXml;
        else if (serviceName)
            d.body += "  <interface name=\"" + *serviceName + "\">\n  </interface>\n";
        for (const std::string& child : children)
            d.body += "  <node name=\"" + child + "\"/>\n";
        d.body += "</node>\n";
        return d;
    }

    if (!serviceName)
        return error(DBUS_ERROR_UNKNOWN_OBJECT, std::string("No such object path '") + path + "'");
    if (*call.interface && *serviceName != call.interface)
        return error(DBUS_ERROR_UNKNOWN_INTERFACE,
                     "No such interface '" + std::string(call.interface) + "' at object path '" + path + "'");
    if (*call.signature && !(same(call.signature, "s") && call.hasText))
        return error(DBUS_ERROR_INVALID_ARGS, "Call to '" + std::string(call.member) +
                                                  "' has wrong args (expected \"s\", got \"" + call.signature + "\")");
    CallDecision d;
    d.route = Route::ToService;
    return d;
}

DBusMessage* buildReply(DBusMessage* call, const Incoming& in, const CallDecision& decision)
{
    if (in.noReply || decision.route == Route::ToService)
        return nullptr;
    switch (decision.route) {
    case Route::Error:
        return dbus_message_new_error(call, decision.errName.c_str(), decision.errMsg.c_str());
    case Route::PeerPing:
        return dbus_message_new_method_return(call);
    case Route::PeerMachineId: {
        char* id = dbus_try_get_local_machine_id(nullptr);
        if (!id)
            return dbus_message_new_error(call, DBUS_ERROR_FILE_NOT_FOUND, "no machine id");
        DBusMessage* reply = dbus_message_new_method_return(call);
        if (reply && !dbus_message_append_args(reply, DBUS_TYPE_STRING, &id, DBUS_TYPE_INVALID)) {
            dbus_message_unref(reply);
            reply = nullptr;
        }
        dbus_free(id);
        return reply;
    }
    case Route::Introspect: {
        DBusMessage* reply = dbus_message_new_method_return(call);
        const char* body = decision.body.c_str();
        if (!isValidText(body))
            body = "";
        if (reply && !dbus_message_append_args(reply, DBUS_TYPE_STRING, &body, DBUS_TYPE_INVALID)) {
            dbus_message_unref(reply);
            reply = nullptr;
        }
        return reply;
    }
    case Route::ToService:
        break;
    }
    return nullptr;
}

const char* const kNoResultError = "com.quorin.SvcIpc.Error.NoResult";

DBusMessage* buildNoResultReply(DBusMessage* call, bool memberDescribed)
{
    if (dbus_message_get_no_reply(call))
        return nullptr;
    const std::string member = str(dbus_message_get_member(call));
    if (memberDescribed)
        return dbus_message_new_error(call, kNoResultError, ("Method '" + member + "' gave no result").c_str());
    return dbus_message_new_error(call, DBUS_ERROR_UNKNOWN_METHOD, ("No such method '" + member + "'").c_str());
}

uint32_t errorCodeForName(const char* errName)
{
    if (!errName)
        return SVCIPC_ERROR_REMOTE;
    if (same(errName, DBUS_ERROR_SERVICE_UNKNOWN) || same(errName, DBUS_ERROR_NAME_HAS_NO_OWNER))
        return SVCIPC_ERROR_NO_SERVICE;
    if (same(errName, DBUS_ERROR_NO_REPLY) || same(errName, DBUS_ERROR_TIMEOUT) || same(errName, DBUS_ERROR_TIMED_OUT))
        return SVCIPC_ERROR_TIMEOUT;
    if (same(errName, DBUS_ERROR_DISCONNECTED))
        return SVCIPC_ERROR_DISCONNECTED;
    if (same(errName, DBUS_ERROR_NO_MEMORY))
        return SVCIPC_ERROR_NO_MEMORY;
    return SVCIPC_ERROR_REMOTE;
}

bool isValidText(const char* text)
{
    return text && dbus_validate_utf8(text, nullptr);
}

}  // namespace svcipc
