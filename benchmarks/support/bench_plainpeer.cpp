// bench_plainpeer: the baselines of the bus benchmarks, each a process of its own written as a
// plain single-threaded libdbus program would be, on the session bus of DBUS_SESSION_BUS_ADDRESS.
//
//   bench_plainpeer echo <bus name> <object path> <reply>
//       owns the name and answers every method call on the path with the fixed reply text
//       (the benchmark gives it the service's own reply, so the same bytes travel).
//   bench_plainpeer threaded-echo <bus name> <object path> <reply>
//       the same, with an idle second thread in the process.
//   bench_plainpeer relay <socket> <object path> <interface> <member> [<pause us>]
//       connects a SOCK_SEQPACKET socket to <socket>, and for every frame it reads emits the
//       signal <member> carrying {"Sensitivity":<third byte>} and a newline, as the service does
//       for a reception sensitivity frame, then sleeps <pause us> microseconds (default none), as
//       the service's V850 reader does after every read. Ends when the socket's peer hangs up.
//
// Both run until they are signalled (or the bus goes); errors go to standard error, exit status 1.
#include <dbus/dbus.h>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

namespace
{
struct Echo
{
    std::string path;
    std::string reply;
};

DBusHandlerResult answer(DBusConnection* connection, DBusMessage* message, void* data)
{
    const Echo* echo = static_cast<const Echo*>(data);
    if (dbus_message_get_type(message) != DBUS_MESSAGE_TYPE_METHOD_CALL ||
        !dbus_message_has_path(message, echo->path.c_str()))
        return DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
    DBusMessage* reply = dbus_message_new_method_return(message);
    const char* text = echo->reply.c_str();
    dbus_message_append_args(reply, DBUS_TYPE_STRING, &text, DBUS_TYPE_INVALID);
    dbus_connection_send(connection, reply, nullptr);
    dbus_message_unref(reply);
    return DBUS_HANDLER_RESULT_HANDLED;
}

DBusConnection* sessionBus()
{
    DBusError error;
    dbus_error_init(&error);
    DBusConnection* connection = dbus_bus_get_private(DBUS_BUS_SESSION, &error);
    if (connection == nullptr) {
        std::fprintf(stderr, "bench_plainpeer: no bus: %s\n", error.message);
        dbus_error_free(&error);
        return nullptr;
    }
    dbus_connection_set_exit_on_disconnect(connection, FALSE);
    return connection;
}

int echo(const char* name, const char* path, const char* reply)
{
    DBusConnection* connection = sessionBus();
    if (connection == nullptr)
        return 1;
    DBusError error;
    dbus_error_init(&error);
    if (dbus_bus_request_name(connection, name, DBUS_NAME_FLAG_DO_NOT_QUEUE, &error) !=
        DBUS_REQUEST_NAME_REPLY_PRIMARY_OWNER) {
        std::fprintf(stderr, "bench_plainpeer: cannot own %s\n", name);
        return 1;
    }
    Echo data{path, reply};
    dbus_connection_add_filter(connection, &answer, &data, nullptr);
    while (dbus_connection_read_write_dispatch(connection, -1)) {
    }
    return 0;
}

int relay(const char* socketPath, const char* path, const char* interface, const char* member, useconds_t pauseUs)
{
    DBusConnection* connection = sessionBus();
    if (connection == nullptr)
        return 1;
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, socketPath, sizeof(address.sun_path) - 1);
    const int fd = ::socket(AF_UNIX, SOCK_SEQPACKET, 0);
    if (fd < 0 || ::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
        std::fprintf(stderr, "bench_plainpeer: cannot connect to %s\n", socketPath);
        return 1;
    }
    unsigned char frame[128];
    for (;;) {
        const ssize_t got = ::read(fd, frame, sizeof(frame));
        if (got <= 0)
            break;
        char text[32];
        std::snprintf(text, sizeof(text), "{\"Sensitivity\":%d}\n", got > 2 ? frame[2] : 0);
        const char* argument = text;
        DBusMessage* signal = dbus_message_new_signal(path, interface, member);
        dbus_message_append_args(signal, DBUS_TYPE_STRING, &argument, DBUS_TYPE_INVALID);
        dbus_connection_send(connection, signal, nullptr);
        dbus_connection_flush(connection);
        dbus_message_unref(signal);
        if (pauseUs > 0)
            ::usleep(pauseUs);
    }
    ::close(fd);
    return 0;
}
}

int main(int argc, char** argv)
{
    if (argc == 5 && std::strcmp(argv[1], "echo") == 0)
        return echo(argv[2], argv[3], argv[4]);
    if (argc == 5 && std::strcmp(argv[1], "threaded-echo") == 0) {
        // The same echo in a process with a second thread that never runs: glibc then takes its
        // mutexes with atomic instructions, as in any threaded service, where a single-threaded
        // process skips them.
        std::thread([] {
            for (;;)
                ::pause();
        }).detach();
        return echo(argv[2], argv[3], argv[4]);
    }
    if ((argc == 6 || argc == 7) && std::strcmp(argv[1], "relay") == 0)
        return relay(argv[2], argv[3], argv[4], argv[5], argc == 7 ? static_cast<useconds_t>(std::atoi(argv[6])) : 0);
    std::fprintf(stderr, "usage: bench_plainpeer echo|threaded-echo <bus name> <object path> <reply>\n"
                         "       bench_plainpeer relay <socket> <object path> <interface> <member> [<pause us>]\n");
    return 2;
}
