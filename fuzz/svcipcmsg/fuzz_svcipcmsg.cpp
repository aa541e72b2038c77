// Messages as they come off the bus, byte for byte: whatever demarshals is classified and routed
// the way a connection serving two objects would, and the library's own reply is built. Nothing
// here may crash, leak or trip libdbus's argument checks, whatever the method name, signature,
// path, interface or argument bytes.
#include "SvcIpcIncoming.h"

#include <dbus/dbus.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (!data || size == 0 || size > (1u << 27))
        return 0;
    DBusMessage* msg = dbus_message_demarshal(reinterpret_cast<const char*>(data), static_cast<int>(size), nullptr);
    if (!msg)
        return 0;
    const std::string service = "com.quorin.service.CBRadioService";
    const std::string interfaces = "  <interface name=\"com.quorin.service.CBRadioService\">\n"
                                   "    <method name=\"reqCBRState\"/>\n  </interface>\n";
    const std::vector<std::string> paths = {"/com/quorin/service/CBRadioService", "/a/b/c"};

    svcipc::Incoming in = svcipc::classify(msg);
    if (in.kind == svcipc::Kind::MethodCall) {
        bool served = false;
        for (const std::string& p : paths)
            served = served || p == in.path;
        svcipc::CallDecision d = svcipc::routeCall(in, served ? &service : nullptr, served ? &interfaces : nullptr,
                                                   [&] { return paths; });
        if (d.route == svcipc::Route::ToService && !svcipc::isValidText(in.text))
            __builtin_trap();  // the request callback must only ever see valid text
        DBusMessage* reply = svcipc::buildReply(msg, in, d);
        if (reply) {
            char* bytes = nullptr;
            int length = 0;
            if (dbus_message_marshal(reply, &bytes, &length))
                dbus_free(bytes);
            dbus_message_unref(reply);
        }
    }
    if (in.kind == svcipc::Kind::MethodCall) {
        for (bool described : {false, true}) {
            if (DBusMessage* reply = svcipc::buildNoResultReply(msg, described))
                dbus_message_unref(reply);
        }
    }
    svcipc::errorCodeForName(in.errName);
    dbus_message_unref(msg);
    return 0;
}
