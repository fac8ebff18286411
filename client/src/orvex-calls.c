#include "orvex-calls.h"

#include "orvex-names.h"

gboolean orvex_is_connected(GDBusConnection* bus) {
    return bus != NULL && !g_dbus_connection_is_closed(bus);
}

void orvex_send(GDBusConnection* bus, const char* daemon, const char* member, GVariant* arguments) {
    g_autoptr(GDBusMessage) call =
        g_dbus_message_new_method_call(daemon, ORVEX_PATH, ORVEX_INTERFACE, member);
    g_dbus_message_set_flags(call, G_DBUS_MESSAGE_FLAGS_NO_REPLY_EXPECTED |
                                       G_DBUS_MESSAGE_FLAGS_NO_AUTO_START);
    g_dbus_message_set_body(call, arguments);
    // It fails on a closed connection only, behind which nothing is left.
    (void)g_dbus_connection_send_message(bus, call, G_DBUS_SEND_MESSAGE_FLAGS_NONE, NULL, NULL);
}

void orvex_send_end_of_question(GDBusConnection* bus, const char* daemon, guint connection,
                                guint request) {
    GVariant* nothing = g_variant_new_fixed_array(G_VARIANT_TYPE_BYTE, "", 0, 1);
    orvex_send(bus, daemon, "sendData",
               g_variant_new("(@aybuu)", nothing, TRUE, connection, request));
}

static void ask_bus(GDBusConnection* bus, const char* member, const char* name, const char* reply,
                    GCancellable* cancellable, GAsyncReadyCallback callback, gpointer data) {
    g_dbus_connection_call(bus, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                           "org.freedesktop.DBus", member, g_variant_new("(s)", name),
                           G_VARIANT_TYPE(reply), G_DBUS_CALL_FLAGS_NONE, ORVEX_ANSWERED_AT_ONCE_MS,
                           cancellable, callback, data);
}

void orvex_ask_for_user(GDBusConnection* bus, const char* name, GAsyncReadyCallback callback,
                        gpointer data) {
    ask_bus(bus, "GetConnectionUnixUser", name, "(u)", NULL, callback, data);
}

void orvex_ask_for_daemon(GDBusConnection* bus, GCancellable* cancellable,
                          GAsyncReadyCallback callback, gpointer data) {
    ask_bus(bus, "GetNameOwner", ORVEX_BUS_NAME, "(s)", cancellable, callback, data);
}

void orvex_ask_for_status(GDBusConnection* bus, const char* name, int timeout,
                          GCancellable* cancellable, GAsyncReadyCallback callback, gpointer data) {
    const GDBusCallFlags flags =
        *name == ':' ? G_DBUS_CALL_FLAGS_NO_AUTO_START : G_DBUS_CALL_FLAGS_NONE;
    g_dbus_connection_call(bus, name, ORVEX_PATH, "org.freedesktop.DBus.Properties", "Get",
                           g_variant_new("(ss)", ORVEX_INTERFACE, "connectionStatus"),
                           G_VARIANT_TYPE("(v)"), flags, timeout, cancellable, callback, data);
}
