#include "BusMonitor.h"

#include "PanelBus.h"

#include <dbus/dbus.h>

#include <cstring>

namespace panel
{

namespace
{
const char* const kPeerPrefix = "com.quorin.service.";

struct Watched
{
    const char* peer;
    const char* method;
};
const Watched kWatched[] = {
    {"TextToSpeechService", "ttsReadout"},
    {"AudioManager", "addInterruptSrc"},
    {"AudioManager", "removeInterruptSrc"},
};

std::string ruleFor(const Watched& w)
{
    return std::string("type='method_call',sender='") + kServiceName + "',destination='" + kPeerPrefix + w.peer +
           "',member='" + w.method + "'";
}
}  // namespace

std::string BusMonitor::start(const std::string& busAddress)
{
    DBusError error;
    dbus_error_init(&error);
    mConn = dbus_connection_open_private(busAddress.c_str(), &error);
    if (!mConn || !dbus_bus_register(mConn, &error)) {
        std::string why = error.message ? error.message : "cannot connect";
        dbus_error_free(&error);
        stop();
        return why;
    }
    dbus_connection_set_exit_on_disconnect(mConn, FALSE);

    DBusMessage* call = dbus_message_new_method_call(DBUS_SERVICE_DBUS, DBUS_PATH_DBUS,
                                                     "org.freedesktop.DBus.Monitoring", "BecomeMonitor");
    DBusMessageIter args;
    DBusMessageIter rules;
    dbus_message_iter_init_append(call, &args);
    dbus_message_iter_open_container(&args, DBUS_TYPE_ARRAY, DBUS_TYPE_STRING_AS_STRING, &rules);
    std::string texts[sizeof kWatched / sizeof kWatched[0]];
    for (std::size_t i = 0; i < sizeof kWatched / sizeof kWatched[0]; ++i) {
        texts[i] = ruleFor(kWatched[i]);
        const char* text = texts[i].c_str();
        dbus_message_iter_append_basic(&rules, DBUS_TYPE_STRING, &text);
    }
    dbus_message_iter_close_container(&args, &rules);
    dbus_uint32_t flags = 0;
    dbus_message_iter_append_basic(&args, DBUS_TYPE_UINT32, &flags);
    DBusMessage* reply = dbus_connection_send_with_reply_and_block(mConn, call, 5000, &error);
    dbus_message_unref(call);
    if (!reply) {
        std::string why = error.message ? error.message : "BecomeMonitor refused";
        dbus_error_free(&error);
        stop();
        return why;
    }
    dbus_message_unref(reply);
    mThread = std::thread([this] { run(); });
    return "";
}

void BusMonitor::stop()
{
    mStop.store(true, std::memory_order_relaxed);
    if (mThread.joinable())
        mThread.join();
    if (mConn) {
        dbus_connection_close(mConn);
        dbus_connection_unref(mConn);
        mConn = nullptr;
    }
}

void BusMonitor::run()
{
    // Only this thread touches the connection from here on.
    while (!mStop.load(std::memory_order_relaxed)) {
        if (!dbus_connection_read_write(mConn, 200) || !dbus_connection_get_is_connected(mConn)) {
            mLost.store(true, std::memory_order_relaxed);
            return;
        }
        while (DBusMessage* message = dbus_connection_pop_message(mConn)) {
            handle(message);
            dbus_message_unref(message);
        }
    }
}

void BusMonitor::handle(DBusMessage* message)
{
    if (dbus_message_get_type(message) != DBUS_MESSAGE_TYPE_METHOD_CALL)
        return;
    const char* destination = dbus_message_get_destination(message);
    const char* member = dbus_message_get_member(message);
    if (!destination || !member || std::strncmp(destination, kPeerPrefix, std::strlen(kPeerPrefix)) != 0)
        return;
    const char* argument = "";
    DBusMessageIter it;
    if (dbus_message_iter_init(message, &it) && dbus_message_iter_get_arg_type(&it) == DBUS_TYPE_STRING)
        dbus_message_iter_get_basic(&it, &argument);
    std::string text = argument;
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r'))
        text.pop_back();
    Json::Value event;
    event["to"] = destination + std::strlen(kPeerPrefix);
    event["method"] = member;
    event["data"] = parsedOrNull(text);
    event["text"] = text;
    mHub.publish("request", compactJson(event));
}

}  // namespace panel
