#include "fakes/FakeBus.h"

#include <array>
#include <cstdarg>
#include <cstdio>
#include <dbus/dbus-glib-lowlevel.h>
#include <utility>

// The linker leads the program's calls of these functions to the stand-ins, and those of the
// stand-ins to libdbus (option --wrap).
// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp,readability-identifier-naming)
// NOLINTBEGIN(cert-dcl50-cpp): libdbus's functions are variadic

extern "C" {

DBusConnection* __real_dbus_bus_get(DBusBusType type, DBusError* error);
int __real_dbus_bus_request_name(DBusConnection* connection, const char* name, unsigned flags,
                                 DBusError* error);
void __real_dbus_bus_add_match(DBusConnection* connection, const char* rule, DBusError* error);
void __real_dbus_bus_remove_match(DBusConnection* connection, const char* rule, DBusError* error);
dbus_bool_t __real_dbus_threads_init_default();
void __real_dbus_connection_setup_with_g_main(DBusConnection* connection, GMainContext* context);
dbus_bool_t __real_dbus_connection_add_filter(DBusConnection* connection,
                                              DBusHandleMessageFunction function, void* data,
                                              DBusFreeFunction freeData);
void __real_dbus_connection_remove_filter(DBusConnection* connection,
                                          DBusHandleMessageFunction function, void* data);
void __real_dbus_connection_set_exit_on_disconnect(DBusConnection* connection, dbus_bool_t exit);
void __real_dbus_connection_set_max_received_size(DBusConnection* connection, long size);
void __real_dbus_connection_set_max_received_unix_fds(DBusConnection* connection, long count);
void __real_dbus_connection_set_max_message_unix_fds(DBusConnection* connection, long count);
dbus_bool_t __real_dbus_connection_send(DBusConnection* connection, DBusMessage* message,
                                        dbus_uint32_t* serial);
void __real_dbus_connection_flush(DBusConnection* connection);
void __real_dbus_connection_unref(DBusConnection* connection);
DBusMessage* __real_dbus_message_new_method_return(DBusMessage* call);
DBusMessage* __real_dbus_message_new_signal(const char* path, const char* interface,
                                            const char* name);

} // extern "C"

namespace fake_bus {

using orvexd::BusMessage;

namespace {

FakeBus* installed = nullptr;

bool fails(const char* function) {
    return installed != nullptr && installed->fails(function);
}

} // namespace

FakeBus::FakeBus() {
    installed = this;
}

FakeBus::~FakeBus() {
    installed = nullptr;
}

FakeBus* FakeBus::current() {
    return installed;
}

DBusConnection* FakeBus::connection() {
    static char token = 0; // the program only passes the pointer on
    return reinterpret_cast<DBusConnection*>(&token);
}

DBusHandlerResult FakeBus::receive(DBusMessage& message) const {
    return filter(connection(), &message, filterData);
}

BusMessage FakeBus::takeSent() {
    const std::vector<BusMessage> taken = std::exchange(sent, {});
    return taken.size() == 1 ? BusMessage(dbus_message_ref(taken.front().get())) : nullptr;
}

bool FakeBus::note(const std::string& function, const std::string& arguments) {
    calls.push_back(arguments.empty() ? function : function + ' ' + arguments);
    if (onCall) {
        onCall();
    }
    return !fails(function);
}

bool FakeBus::noteOrReport(const std::string& function, const std::string& arguments,
                           DBusError* error) {
    const bool good = note(function, arguments);
    if (!good) {
        dbus_set_error_const(error, "test.Failed", "no luck");
    }
    return good;
}

namespace {

BusMessage arrived(DBusMessage* message) {
    dbus_message_set_serial(message, 7);
    dbus_message_set_sender(message, ":1.5");
    return BusMessage(message);
}

} // namespace

BusMessage call(const char* member, const char* interface) {
    return arrived(
        dbus_message_new_method_call("com.kelvra.orvexd", "/com/kelvra/orvexd", interface, member));
}

BusMessage signal(const char* member) {
    return arrived(
        __real_dbus_message_new_signal("/com/kelvra/orvexd", "com.kelvra.orvexd", member));
}

extern "C" {

DBusConnection* __wrap_dbus_bus_get(DBusBusType type, DBusError* error) {
    if (installed == nullptr) {
        return __real_dbus_bus_get(type, error);
    }
    const bool good = installed->noteOrReport(
        "dbus_bus_get", type == DBUS_BUS_SYSTEM ? "system" : "another bus", error);
    return good ? FakeBus::connection() : nullptr;
}

int __wrap_dbus_bus_request_name(DBusConnection* connection, const char* name, unsigned flags,
                                 DBusError* error) {
    if (installed == nullptr) {
        return __real_dbus_bus_request_name(connection, name, flags, error);
    }
    const bool good = installed->noteOrReport(
        "dbus_bus_request_name", std::string(name) + ' ' + std::to_string(flags), error);
    return good ? installed->nameReply : -1;
}

void __wrap_dbus_bus_add_match(DBusConnection* connection, const char* rule, DBusError* error) {
    if (installed == nullptr) {
        __real_dbus_bus_add_match(connection, rule, error);
        return;
    }
    installed->noteOrReport("dbus_bus_add_match", rule, error);
}

void __wrap_dbus_bus_remove_match(DBusConnection* connection, const char* rule, DBusError* error) {
    if (installed == nullptr) {
        __real_dbus_bus_remove_match(connection, rule, error);
        return;
    }
    installed->note("dbus_bus_remove_match",
                    std::string(rule) + (error == nullptr ? "" : " and waits"));
}

dbus_bool_t __wrap_dbus_threads_init_default() {
    return installed == nullptr ? __real_dbus_threads_init_default()
                                : installed->note("dbus_threads_init_default", "");
}

void __wrap_dbus_connection_setup_with_g_main(DBusConnection* connection, GMainContext* context) {
    if (installed == nullptr) {
        __real_dbus_connection_setup_with_g_main(connection, context);
        return;
    }
    installed->note("dbus_connection_setup_with_g_main", context == nullptr ? "" : "another");
}

dbus_bool_t __wrap_dbus_connection_add_filter(DBusConnection* connection,
                                              DBusHandleMessageFunction function, void* data,
                                              DBusFreeFunction freeData) {
    if (installed == nullptr) {
        return __real_dbus_connection_add_filter(connection, function, data, freeData);
    }
    installed->filter = function;
    installed->filterData = data;
    return installed->note("dbus_connection_add_filter", freeData == nullptr ? "" : "with free");
}

void __wrap_dbus_connection_remove_filter(DBusConnection* connection,
                                          DBusHandleMessageFunction function, void* data) {
    if (installed == nullptr) {
        __real_dbus_connection_remove_filter(connection, function, data);
        return;
    }
    const bool same = function == installed->filter && data == installed->filterData;
    installed->note("dbus_connection_remove_filter", same ? "" : "another");
}

void __wrap_dbus_connection_set_exit_on_disconnect(DBusConnection* connection, dbus_bool_t exit) {
    if (installed == nullptr) {
        __real_dbus_connection_set_exit_on_disconnect(connection, exit);
        return;
    }
    installed->note("dbus_connection_set_exit_on_disconnect", exit == FALSE ? "no" : "yes");
}

void __wrap_dbus_connection_set_max_received_size(DBusConnection* connection, long size) {
    if (installed == nullptr) {
        __real_dbus_connection_set_max_received_size(connection, size);
        return;
    }
    installed->note("dbus_connection_set_max_received_size", std::to_string(size));
}

void __wrap_dbus_connection_set_max_received_unix_fds(DBusConnection* connection, long count) {
    if (installed == nullptr) {
        __real_dbus_connection_set_max_received_unix_fds(connection, count);
        return;
    }
    installed->note("dbus_connection_set_max_received_unix_fds", std::to_string(count));
}

void __wrap_dbus_connection_set_max_message_unix_fds(DBusConnection* connection, long count) {
    if (installed == nullptr) {
        __real_dbus_connection_set_max_message_unix_fds(connection, count);
        return;
    }
    installed->note("dbus_connection_set_max_message_unix_fds", std::to_string(count));
}

dbus_bool_t __wrap_dbus_connection_send(DBusConnection* connection, DBusMessage* message,
                                        dbus_uint32_t* serial) {
    if (installed == nullptr) {
        return __real_dbus_connection_send(connection, message, serial);
    }
    const bool good = installed->note("dbus_connection_send", "");
    if (good) {
        installed->sent.emplace_back(dbus_message_ref(message));
    }
    return good;
}

void __wrap_dbus_connection_flush(DBusConnection* connection) {
    if (installed == nullptr) {
        __real_dbus_connection_flush(connection);
        return;
    }
    installed->note("dbus_connection_flush", "");
}

void __wrap_dbus_connection_unref(DBusConnection* connection) {
    if (installed == nullptr) {
        __real_dbus_connection_unref(connection);
        return;
    }
    installed->note("dbus_connection_unref", "");
}

DBusMessage* __wrap_dbus_message_new_method_return(DBusMessage* call) {
    return fails("dbus_message_new_method_return") ? nullptr
                                                   : __real_dbus_message_new_method_return(call);
}

DBusMessage* __wrap_dbus_message_new_signal(const char* path, const char* interface,
                                            const char* name) {
    return fails("dbus_message_new_signal") ? nullptr
                                            : __real_dbus_message_new_signal(path, interface, name);
}

DBusMessage* __wrap_dbus_message_new_error_printf(DBusMessage* call, const char* name,
                                                  const char* format, ...) {
    if (fails("dbus_message_new_error_printf")) {
        return nullptr;
    }
    std::array<char, 256> text{};
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(text.data(), text.size(), format, arguments);
    va_end(arguments);
    return dbus_message_new_error(call, name, text.data());
}

dbus_bool_t __wrap_dbus_message_append_args(DBusMessage* message, int firstType, ...) {
    if (fails("dbus_message_append_args")) {
        return FALSE;
    }
    va_list arguments;
    va_start(arguments, firstType);
    const dbus_bool_t good = dbus_message_append_args_valist(message, firstType, arguments);
    va_end(arguments);
    return good;
}

} // extern "C"

} // namespace fake_bus

// NOLINTEND(cert-dcl50-cpp)
// NOLINTEND(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp,readability-identifier-naming)
