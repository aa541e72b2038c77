#include "PlainDbus.h"

namespace PlainDbus
{
DBusConnection* openConnection(const std::string& address)
{
    DBusConnection* c = dbus_connection_open_private(address.c_str(), nullptr);
    if (c != nullptr && !dbus_bus_register(c, nullptr)) {
        closeConnection(c);
        return nullptr;
    }
    return c;
}

void closeConnection(DBusConnection* connection)
{
    if (connection != nullptr) {
        dbus_connection_close(connection);
        dbus_connection_unref(connection);
    }
}

DBusHandlerResult EchoPeer::filter(DBusConnection* connection, DBusMessage* message, void* data)
{
    EchoPeer* self = static_cast<EchoPeer*>(data);
    if (dbus_message_is_signal(message, self->mNames.name.c_str(), "tick")) {
        self->mTicks->signal();
        return DBUS_HANDLER_RESULT_HANDLED;
    }
    if (dbus_message_get_type(message) != DBUS_MESSAGE_TYPE_METHOD_CALL ||
        !dbus_message_has_path(message, self->mNames.methodPath.c_str()))
        return DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
    const char* text = "";
    dbus_message_get_args(message, nullptr, DBUS_TYPE_STRING, &text, DBUS_TYPE_INVALID);
    if (self->mFixedReply)
        text = self->mFixedReply->c_str();
    DBusMessage* reply = dbus_message_new_method_return(message);
    dbus_message_append_args(reply, DBUS_TYPE_STRING, &text, DBUS_TYPE_INVALID);
    dbus_connection_send(connection, reply, nullptr);
    dbus_message_unref(reply);
    if (dbus_message_has_member(message, "quit"))
        self->mRunning = false;
    return DBUS_HANDLER_RESULT_HANDLED;
}

bool EchoPeer::start(const std::string& address, const Names& names, Arrival* ticks,
                     std::optional<std::string> fixedReply)
{
    mNames = names;
    mTicks = ticks;
    mFixedReply = std::move(fixedReply);
    mConnection = openConnection(address);
    if (mConnection == nullptr)
        return false;
    dbus_bus_request_name(mConnection, mNames.name.c_str(), DBUS_NAME_FLAG_DO_NOT_QUEUE, nullptr);
    // Blocking (with an error to fill), so the rule is in place before the first tick is sent.
    const std::string rule = "type='signal',path='" + mNames.signalPath + "',member='tick'";
    DBusError error;
    dbus_error_init(&error);
    dbus_bus_add_match(mConnection, rule.c_str(), &error);
    dbus_error_free(&error);
    dbus_connection_add_filter(mConnection, &EchoPeer::filter, this, nullptr);
    mThread = std::thread([this] {
        while (mRunning && dbus_connection_read_write_dispatch(mConnection, -1)) {
        }
    });
    return true;
}

void EchoPeer::stop(DBusConnection* client)
{
    if (mConnection == nullptr)
        return;
    if (client != nullptr) {
        const char* name = mNames.name.c_str();
        DBusMessage* quit = dbus_message_new_method_call(name, mNames.methodPath.c_str(), name, "quit");
        DBusMessage* reply = dbus_connection_send_with_reply_and_block(client, quit, 2000, nullptr);
        if (reply != nullptr)
            dbus_message_unref(reply);
        dbus_message_unref(quit);
    }
    if (mThread.joinable())
        mThread.join();
    closeConnection(mConnection);
    mConnection = nullptr;
}

Clock::duration roundTrip(DBusConnection* client, const Names& peer, const char* member, const char* argument)
{
    const auto start = Clock::now();
    const char* name = peer.name.c_str();
    DBusMessage* call = dbus_message_new_method_call(name, peer.methodPath.c_str(), name, member);
    dbus_message_append_args(call, DBUS_TYPE_STRING, &argument, DBUS_TYPE_INVALID);
    DBusMessage* reply = dbus_connection_send_with_reply_and_block(client, call, 5000, nullptr);
    if (reply != nullptr) {
        const char* result = nullptr;
        dbus_message_get_args(reply, nullptr, DBUS_TYPE_STRING, &result, DBUS_TYPE_INVALID);
        dbus_message_unref(reply);
    }
    dbus_message_unref(call);
    return Clock::now() - start;
}

Clock::duration tick(DBusConnection* client, const Names& peer, const char* text, Arrival& ticks)
{
    const auto start = Clock::now();
    DBusMessage* sig = dbus_message_new_signal(peer.signalPath.c_str(), peer.name.c_str(), "tick");
    dbus_message_append_args(sig, DBUS_TYPE_STRING, &text, DBUS_TYPE_INVALID);
    dbus_connection_send(client, sig, nullptr);
    dbus_connection_flush(client);
    dbus_message_unref(sig);
    Arrival::Clock::time_point at;
    ticks.wait(at);
    return at - start;
}
}

namespace PlainDbus
{
bool call(DBusConnection* client, const std::string& name, const std::string& path, const char* member,
          const char* argument)
{
    DBusMessage* message = dbus_message_new_method_call(name.c_str(), path.c_str(), name.c_str(), member);
    dbus_message_append_args(message, DBUS_TYPE_STRING, &argument, DBUS_TYPE_INVALID);
    DBusMessage* reply = dbus_connection_send_with_reply_and_block(client, message, 5000, nullptr);
    dbus_message_unref(message);
    if (reply == nullptr)
        return false;
    const char* result = nullptr;
    const bool ok = dbus_message_get_args(reply, nullptr, DBUS_TYPE_STRING, &result, DBUS_TYPE_INVALID);
    dbus_message_unref(reply);
    return ok;
}

void SignalWatch::watch(const std::string& path, const std::string& member, Arrival* arrival)
{
    mRules.push_back({path, member, arrival});
}

bool SignalWatch::start(const std::string& address)
{
    mConnection = openConnection(address);
    if (mConnection == nullptr)
        return false;
    for (const Rule& rule : mRules) {
        const std::string text = "type='signal',path='" + rule.path + "',member='" + rule.member + "'";
        DBusError error;
        dbus_error_init(&error);
        dbus_bus_add_match(mConnection, text.c_str(), &error);
        const bool refused = dbus_error_is_set(&error);
        dbus_error_free(&error);
        if (refused)
            return false;
    }
    dbus_connection_add_filter(mConnection, &SignalWatch::filter, this, nullptr);
    mRunning = true;
    mThread = std::thread([this] {
        while (mRunning && dbus_connection_read_write_dispatch(mConnection, 100)) {
        }
    });
    return true;
}

void SignalWatch::stop()
{
    mRunning = false;
    if (mThread.joinable())
        mThread.join();
    closeConnection(mConnection);
    mConnection = nullptr;
}

DBusHandlerResult SignalWatch::filter(DBusConnection*, DBusMessage* message, void* data)
{
    if (dbus_message_get_type(message) != DBUS_MESSAGE_TYPE_SIGNAL)
        return DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
    for (const Rule& rule : static_cast<SignalWatch*>(data)->mRules) {
        if (dbus_message_has_path(message, rule.path.c_str()) &&
            dbus_message_has_member(message, rule.member.c_str())) {
            rule.arrival->signal();
            return DBUS_HANDLER_RESULT_HANDLED;
        }
    }
    return DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
}
}
