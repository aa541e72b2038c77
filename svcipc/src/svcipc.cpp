// The C entry points: argument checks, handle look-ups, and the hand-over to the connection.
#include "svcipc.h"

#include "SvcIpcConnection.h"
#include "SvcIpcHandles.h"
#include "SvcIpcIncoming.h"

#include <dbus/dbus.h>

#include <algorithm>
#include <climits>
#include <mutex>
#include <unordered_map>

using namespace svcipc;

namespace
{
struct ResponseBox
{
    SVCIPC_tResponse pub;
    std::string text;
};

struct Library
{
    std::mutex mutex;
    int initCount = 0;
    std::shared_ptr<Connection> shared[2];
    std::unordered_map<SVCIPC_tResponse*, ResponseBox*> responses;
};

Library& lib()
{
    static Library* l = new Library;  // outlives every static and thread-local destructor
    return *l;
}

thread_local std::string tlsErrName;
thread_local std::string tlsErrMsg;

bool isInitialized()
{
    std::lock_guard<std::mutex> lock(lib().mutex);
    return lib().initCount > 0;
}

template <typename H>
uintptr_t id(H handle)
{
    return reinterpret_cast<uintptr_t>(handle);
}

bool lookup(uintptr_t handle, HandleKind kind, HandleEntry& out)
{
    return handle != 0 && Handles::get(handle, kind, out);
}

bool validBusName(const char* name)
{
    return name && dbus_validate_bus_name(name, nullptr);
}

bool validWellKnownName(const char* name)
{
    return validBusName(name) && name[0] != ':';
}

bool validPath(const char* path)
{
    return path && dbus_validate_path(path, nullptr);
}

bool validMember(const char* member)
{
    return member && dbus_validate_member(member, nullptr);
}

// The bus name an object path spells: "/com/quorin/service/X" -> "com.quorin.service.X"; "" when
// that is no well-known name.
std::string nameSpelledBy(const char* path)
{
    std::string name(path + 1);
    std::replace(name.begin(), name.end(), '/', '.');
    return validWellKnownName(name.c_str()) ? name : std::string();
}

const char* orEmpty(const char* text)
{
    return text ? text : "";
}

int timeoutMs(SVCIPC_tUInt32 msecTimeout)
{
    if (msecTimeout == 0)
        return static_cast<int>(SVCIPC_DEFAULT_TIMEOUT_MS);
    return msecTimeout > static_cast<SVCIPC_tUInt32>(INT_MAX) ? INT_MAX : static_cast<int>(msecTimeout);
}

void* userToken(const void* token)
{
    return const_cast<void*>(token);
}

// A method call in the library's bus form; null when an argument is not acceptable.
DBusMessage* newMethodCall(const char* busName, const char* objPath, const char* method, const char* parms)
{
    if (!validBusName(busName) || !validPath(objPath) || !validMember(method) || !isValidText(orEmpty(parms)))
        return nullptr;
    // A unique name (or a well-known one with '-') cannot double as the interface: send none.
    const char* interface = dbus_validate_interface(busName, nullptr) ? busName : nullptr;
    DBusMessage* msg = dbus_message_new_method_call(busName, objPath, interface, method);
    const char* text = orEmpty(parms);
    if (msg && !dbus_message_append_args(msg, DBUS_TYPE_STRING, &text, DBUS_TYPE_INVALID)) {
        dbus_message_unref(msg);
        msg = nullptr;
    }
    return msg;
}

// The common part of both kinds of subscription; `sub` is null when an argument was not acceptable
// (a bad handle is reported first).
SVCIPC_tError addSubscription(SVCIPC_tConnection conn, std::shared_ptr<Subscription> sub, SVCIPC_tSigSubHnd* subHnd)
{
    if (!subHnd)
        return SVCIPC_ERR_BAD_ARGUMENT;
    *subHnd = nullptr;
    setLastError("", "");
    HandleEntry e;
    if (!lookup(id(conn), HandleKind::Connection, e))
        return SVCIPC_ERR_BAD_HANDLE;
    if (!sub)
        return SVCIPC_ERR_BAD_ARGUMENT;
    SVCIPC_tError status = e.conn->addSubscription(sub);
    if (status != 0)
        return status;
    *subHnd = reinterpret_cast<SVCIPC_tSigSubHnd>(Handles::add(HandleKind::Subscription, e.conn, std::move(sub)));
    return 0;
}
}  // namespace

void svcipc::setLastError(const std::string& name, const std::string& message)
{
    tlsErrName = name;
    tlsErrMsg = message;
}

extern "C" {

SVCIPC_tError SVCIPC_initialize(void)
{
    if (!dbus_threads_init_default())
        return SVCIPC_ERR_INTERNAL;
    std::lock_guard<std::mutex> lock(lib().mutex);
    ++lib().initCount;
    return 0;
}

SVCIPC_tError SVCIPC_shutdown(void)
{
    {
        std::lock_guard<std::mutex> lock(lib().mutex);
        if (lib().initCount == 0)
            return SVCIPC_ERR_NOT_INITIALIZED;
        if (--lib().initCount > 0)
            return 0;
        lib().shared[0].reset();
        lib().shared[1].reset();
    }
    for (const auto& conn : Handles::connections()) {
        std::vector<HandleEntry> removed = Handles::removeAllOf(conn.get());
        conn->close();
    }
    return 0;
}

SVCIPC_tError SVCIPC_getConnection(SVCIPC_tUInt32 connType, SVCIPC_tBool openPrivate, SVCIPC_tConnection* conn)
{
    if (!conn)
        return SVCIPC_ERR_BAD_ARGUMENT;
    *conn = nullptr;
    if (!isInitialized())
        return SVCIPC_ERR_NOT_INITIALIZED;
    if (connType != SVCIPC_CONNECTION_SESSION && connType != SVCIPC_CONNECTION_SYSTEM)
        return SVCIPC_ERR_BAD_ARGUMENT;

    if (!openPrivate) {
        std::lock_guard<std::mutex> lock(lib().mutex);
        std::shared_ptr<Connection>& shared = lib().shared[connType];
        if (shared && shared->isConnected()) {
            *conn = reinterpret_cast<SVCIPC_tConnection>(Handles::add(HandleKind::Connection, shared, nullptr));
            return 0;
        }
    }
    std::shared_ptr<Connection> opened;
    SVCIPC_tError status = Connection::open(connType, opened);
    if (status != 0)
        return status;
    std::shared_ptr<Connection> spare;  // a shared one opened by another thread meanwhile
    {
        std::lock_guard<std::mutex> lock(lib().mutex);
        if (!openPrivate) {
            std::shared_ptr<Connection>& shared = lib().shared[connType];
            if (shared && shared->isConnected())
                spare.swap(opened), opened = shared;
            else
                shared = opened;
        }
        *conn = reinterpret_cast<SVCIPC_tConnection>(Handles::add(HandleKind::Connection, opened, nullptr));
    }
    if (spare)
        spare->close();
    return 0;
}

SVCIPC_tError SVCIPC_closeConnection(SVCIPC_tConnection conn)
{
    HandleEntry e;
    std::vector<HandleEntry> removed;
    {
        std::lock_guard<std::mutex> lock(lib().mutex);
        if (id(conn) == 0 || !Handles::remove(id(conn), HandleKind::Connection, &e))
            return SVCIPC_ERR_BAD_HANDLE;
        if (Handles::connectionHandles(e.conn.get()) > 0)
            return 0;
        for (auto& shared : lib().shared)
            if (shared == e.conn)
                shared.reset();
        removed = Handles::removeAllOf(e.conn.get());
    }
    e.conn->close();
    return 0;
}

SVCIPC_tError SVCIPC_setConnectionLostCallback(SVCIPC_tConnection conn, SVCIPC_tConnectionLostCallback onLost,
                                               const void* token)
{
    HandleEntry e;
    if (!lookup(id(conn), HandleKind::Connection, e))
        return SVCIPC_ERR_BAD_HANDLE;
    e.conn->setLostCallback(onLost, userToken(token));
    return 0;
}

SVCIPC_tError SVCIPC_setInterfaceDescription(SVCIPC_tConnection conn, const char* objPath, const char* xml)
{
    HandleEntry e;
    if (!lookup(id(conn), HandleKind::Connection, e))
        return SVCIPC_ERR_BAD_HANDLE;
    auto description = std::make_shared<InterfaceDescription>();
    if (!validPath(objPath) || !isValidText(xml) || !parseDescription(xml, *description))
        return SVCIPC_ERR_BAD_ARGUMENT;
    e.conn->setDescription(objPath, std::move(description));
    return 0;
}

SVCIPC_tError SVCIPC_registerService(SVCIPC_tConnection conn, const char* busName, const char* objPath,
                                     SVCIPC_tUInt32 flags, SVCIPC_tRequestCallback onRequest, const void* token,
                                     SVCIPC_tSvcRegHnd* regHnd)
{
    if (!regHnd)
        return SVCIPC_ERR_BAD_ARGUMENT;
    *regHnd = nullptr;
    setLastError("", "");
    HandleEntry e;
    if (!lookup(id(conn), HandleKind::Connection, e))
        return SVCIPC_ERR_BAD_HANDLE;
    if (!validWellKnownName(busName) || !validPath(objPath) || !onRequest || flags != SVCIPC_REG_FLAG_NONE)
        return SVCIPC_ERR_BAD_ARGUMENT;
    auto reg = std::make_shared<Registration>();
    reg->busName = busName;
    reg->objPath = objPath;
    reg->onRequest = onRequest;
    reg->token = userToken(token);
    SVCIPC_tError status = e.conn->addRegistration(reg);
    if (status != 0)
        return status;
    *regHnd = reinterpret_cast<SVCIPC_tSvcRegHnd>(Handles::add(HandleKind::Registration, e.conn, std::move(reg)));
    return 0;
}

SVCIPC_tError SVCIPC_unregisterService(SVCIPC_tSvcRegHnd regHnd)
{
    HandleEntry e;
    if (id(regHnd) == 0 || !Handles::remove(id(regHnd), HandleKind::Registration, &e))
        return SVCIPC_ERR_BAD_HANDLE;
    return e.conn->removeRegistration(std::static_pointer_cast<Registration>(e.object));
}

SVCIPC_tError SVCIPC_asyncReturnResult(SVCIPC_tReqContext context, const char* result, SVCIPC_tStatusCallback onStatus,
                                       const void* token)
{
    HandleEntry e;
    if (!lookup(id(context), HandleKind::Request, e))
        return SVCIPC_ERR_BAD_HANDLE;
    const char* text = orEmpty(result);
    if (!isValidText(text))
        return SVCIPC_ERR_BAD_ARGUMENT;
    auto* ctx = static_cast<RequestContext*>(e.object.get());
    SVCIPC_tError status = 0;
    if (!ctx->noReply) {
        DBusMessage* reply = dbus_message_new_method_return(ctx->call);
        if (!reply)
            return SVCIPC_ERR_NO_MEMORY;
        status = dbus_message_append_args(reply, DBUS_TYPE_STRING, &text, DBUS_TYPE_INVALID)
                     ? e.conn->sendMessage(reply)
                     : SVCIPC_ERR_NO_MEMORY;
        dbus_message_unref(reply);
    }
    if (status == 0) {
        ctx->replied = true;
        e.conn->complete(onStatus, userToken(token));
    }
    return status;
}

SVCIPC_tError SVCIPC_freeReqContext(SVCIPC_tReqContext context)
{
    HandleEntry e;
    if (id(context) == 0 || !Handles::remove(id(context), HandleKind::Request, &e))
        return SVCIPC_ERR_BAD_HANDLE;
    auto* ctx = static_cast<RequestContext*>(e.object.get());
    if (!ctx->noReply && !ctx->replied)
        e.conn->answerUnanswered(ctx->call);  // nobody waits out a time-out
    return 0;
}

SVCIPC_tError SVCIPC_asyncEmit(SVCIPC_tConnection conn, const char* sigName, const char* data,
                               SVCIPC_tStatusCallback onStatus, const void* token)
{
    HandleEntry e;
    if (!lookup(id(conn), HandleKind::Connection, e))
        return SVCIPC_ERR_BAD_HANDLE;
    if (!validMember(sigName) || !isValidText(orEmpty(data)))
        return SVCIPC_ERR_BAD_ARGUMENT;
    SVCIPC_tError status = e.conn->emit(sigName, orEmpty(data));
    if (status == 0)
        e.conn->complete(onStatus, userToken(token));
    return status;
}

SVCIPC_tError SVCIPC_subscribe(SVCIPC_tConnection conn, const char* objPath, const char* sigName,
                               SVCIPC_tSignalCallback onSignal, const void* token, SVCIPC_tSigSubHnd* subHnd)
{
    const std::string owner = validPath(objPath) ? nameSpelledBy(objPath) : std::string();
    if (owner.empty() || !validMember(sigName) || !onSignal)
        return addSubscription(conn, nullptr, subHnd);
    auto sub = std::make_shared<Subscription>();
    sub->path = objPath;
    sub->member = sigName;
    // Only the name's current owner is heard: nobody else can pose as the peer.
    sub->rule = "type='signal',sender='" + owner + "',path='" + objPath + "',member='" + sigName + "'";
    sub->onSignal = onSignal;
    sub->token = userToken(token);
    return addSubscription(conn, std::move(sub), subHnd);
}

SVCIPC_tError SVCIPC_unsubscribe(SVCIPC_tSigSubHnd subHnd)
{
    HandleEntry e;
    if (id(subHnd) == 0 || !Handles::remove(id(subHnd), HandleKind::Subscription, &e))
        return SVCIPC_ERR_BAD_HANDLE;
    e.conn->removeSubscription(std::static_pointer_cast<Subscription>(e.object));
    return 0;
}

SVCIPC_tError SVCIPC_subscribeOwnerChanged(SVCIPC_tConnection conn, const char* busName,
                                           SVCIPC_tNameOwnerChangedCallback onOwnerChanged, const void* token,
                                           SVCIPC_tSigSubHnd* subHnd)
{
    if (!validBusName(busName) || !onOwnerChanged)
        return addSubscription(conn, nullptr, subHnd);
    auto sub = std::make_shared<Subscription>();
    sub->ownerWatch = true;
    sub->busName = busName;
    sub->rule = std::string("type='signal',sender='" DBUS_SERVICE_DBUS "',path='" DBUS_PATH_DBUS
                            "',interface='" DBUS_INTERFACE_DBUS "',member='NameOwnerChanged',arg0='") +
                busName + "'";
    sub->onOwnerChanged = onOwnerChanged;
    sub->token = userToken(token);
    return addSubscription(conn, std::move(sub), subHnd);
}

SVCIPC_tError SVCIPC_nameHasOwner(SVCIPC_tConnection conn, const char* busName, SVCIPC_tBool* hasOwner,
                                  SVCIPC_tUInt32 msecTimeout)
{
    setLastError("", "");
    HandleEntry e;
    if (!lookup(id(conn), HandleKind::Connection, e))
        return SVCIPC_ERR_BAD_HANDLE;
    if (!hasOwner || !validBusName(busName))
        return SVCIPC_ERR_BAD_ARGUMENT;
    *hasOwner = 0;
    DBusMessage* msg = dbus_message_new_method_call(DBUS_SERVICE_DBUS, DBUS_PATH_DBUS, DBUS_INTERFACE_DBUS,
                                                    "NameHasOwner");
    if (!msg)
        return SVCIPC_ERR_NO_MEMORY;
    SVCIPC_tError status = SVCIPC_ERR_NO_MEMORY;
    DBusMessage* reply = nullptr;
    CallResult result;
    if (dbus_message_append_args(msg, DBUS_TYPE_STRING, &busName, DBUS_TYPE_INVALID))
        status = e.conn->call(msg, timeoutMs(msecTimeout), &reply, result);
    dbus_message_unref(msg);
    if (status != 0) {
        setLastError(result.errName, result.errMsg);
        return status;
    }
    dbus_bool_t owned = FALSE;
    if (!dbus_message_get_args(reply, nullptr, DBUS_TYPE_BOOLEAN, &owned, DBUS_TYPE_INVALID))
        status = SVCIPC_ERR_INTERNAL;
    dbus_message_unref(reply);
    *hasOwner = owned ? 1 : 0;
    return status;
}

SVCIPC_tError SVCIPC_invoke(SVCIPC_tConnection conn, const char* busName, const char* objPath, const char* method,
                            const char* parms, SVCIPC_tBool noReplyExpected, SVCIPC_tUInt32 msecTimeout,
                            SVCIPC_tResponse** response)
{
    if (response)
        *response = nullptr;
    setLastError("", "");
    HandleEntry e;
    if (!lookup(id(conn), HandleKind::Connection, e))
        return SVCIPC_ERR_BAD_HANDLE;
    if (!noReplyExpected && !response)
        return SVCIPC_ERR_BAD_ARGUMENT;
    DBusMessage* msg = newMethodCall(busName, objPath, method, parms);
    if (!msg)
        return SVCIPC_ERR_BAD_ARGUMENT;
    SVCIPC_tError status;
    CallResult result;
    DBusMessage* reply = nullptr;
    if (noReplyExpected) {
        dbus_message_set_no_reply(msg, TRUE);
        status = e.conn->sendMessage(msg);
    } else {
        status = e.conn->call(msg, timeoutMs(msecTimeout), &reply, result);
    }
    dbus_message_unref(msg);
    if (status != 0) {
        setLastError(result.errName, result.errMsg);
        return status;
    }
    if (!noReplyExpected) {
        auto* box = new ResponseBox;
        box->text = classify(reply).text;
        dbus_message_unref(reply);
        box->pub.result = box->text.c_str();
        std::lock_guard<std::mutex> lock(lib().mutex);
        lib().responses[&box->pub] = box;
        *response = &box->pub;
    }
    return 0;
}

SVCIPC_tError SVCIPC_asyncInvoke(SVCIPC_tConnection conn, const char* busName, const char* objPath, const char* method,
                                 const char* parms, SVCIPC_tBool noReplyExpected, SVCIPC_tUInt32 msecTimeout,
                                 SVCIPC_tResultCallback onResult, const void* token)
{
    setLastError("", "");
    HandleEntry e;
    if (!lookup(id(conn), HandleKind::Connection, e))
        return SVCIPC_ERR_BAD_HANDLE;
    DBusMessage* msg = newMethodCall(busName, objPath, method, parms);
    if (!msg)
        return SVCIPC_ERR_BAD_ARGUMENT;
    SVCIPC_tError status;
    if (noReplyExpected) {
        dbus_message_set_no_reply(msg, TRUE);
        status = e.conn->sendMessage(msg);
    } else {
        status = e.conn->callAsync(msg, timeoutMs(msecTimeout), onResult, userToken(token));
    }
    dbus_message_unref(msg);
    return status;
}

SVCIPC_tError SVCIPC_freeResponse(SVCIPC_tResponse* response)
{
    ResponseBox* box = nullptr;
    {
        std::lock_guard<std::mutex> lock(lib().mutex);
        auto it = lib().responses.find(response);
        if (it == lib().responses.end())
            return SVCIPC_ERR_BAD_HANDLE;
        box = it->second;
        lib().responses.erase(it);
    }
    delete box;
    return 0;
}

const char* SVCIPC_errorText(SVCIPC_tError status)
{
    if (!SVCIPC_IS_ERROR(status))
        return "success";
    switch (SVCIPC_GET_CODE(status)) {
    case SVCIPC_ERROR_NOT_INITIALIZED:
        return "library not initialized";
    case SVCIPC_ERROR_NO_MEMORY:
        return "out of memory";
    case SVCIPC_ERROR_BAD_ARGUMENT:
        return "bad argument";
    case SVCIPC_ERROR_BAD_HANDLE:
        return "bad handle";
    case SVCIPC_ERROR_NO_CONNECTION:
        return "bus not reachable";
    case SVCIPC_ERROR_DISCONNECTED:
        return "disconnected from the bus";
    case SVCIPC_ERROR_NAME_TAKEN:
        return "name owned by another connection";
    case SVCIPC_ERROR_ALREADY_REGISTERED:
        return "already registered";
    case SVCIPC_ERROR_TIMEOUT:
        return "time-out";
    case SVCIPC_ERROR_NO_SERVICE:
        return "service not on the bus";
    case SVCIPC_ERROR_REMOTE:
        return "error reply";
    case SVCIPC_ERROR_NOT_REGISTERED:
        return "no service registered on the connection";
    case SVCIPC_ERROR_INTERNAL:
        return "internal error";
    default:
        return "unknown error";
    }
}

const char* SVCIPC_getLastErrorName(void)
{
    return tlsErrName.c_str();
}

const char* SVCIPC_getLastErrorMessage(void)
{
    return tlsErrMsg.c_str();
}

}  // extern "C"
