#include "fakes/FakeBus.h"

#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstdio>
#include <dbus/dbus-glib-lowlevel.h>
#include <iterator>
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
dbus_bool_t __real_dbus_connection_send_with_reply(DBusConnection* connection, DBusMessage* call,
                                                   DBusPendingCall** pending, int timeout);
dbus_bool_t __real_dbus_pending_call_set_notify(DBusPendingCall* pending,
                                                DBusPendingCallNotifyFunction function, void* data,
                                                DBusFreeFunction freeData);
dbus_bool_t __real_dbus_pending_call_get_completed(DBusPendingCall* pending);
DBusMessage* __real_dbus_pending_call_steal_reply(DBusPendingCall* pending);
void __real_dbus_pending_call_cancel(DBusPendingCall* pending);
void __real_dbus_pending_call_unref(DBusPendingCall* pending);
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

std::string argumentOf(DBusMessage& call) {
    const char* argument = nullptr;
    return dbus_message_get_args(&call, nullptr, DBUS_TYPE_STRING, &argument, DBUS_TYPE_INVALID) !=
                   FALSE
               ? argument
               : std::string();
}

FakeBus::Question& questionOf(DBusPendingCall* pending) {
    return *reinterpret_cast<FakeBus::Question*>(pending);
}

} // namespace

std::vector<std::string> FakeBus::questions() const {
    std::vector<std::string> texts;
    for (const Question& question : asked) {
        if (!question.reply) {
            const std::string argument = argumentOf(*question.call);
            texts.push_back(dbus_message_get_member(question.call.get()) +
                            (argument.empty() ? argument : ' ' + argument));
        }
    }
    return texts;
}

/// What a bus answers to the three questions that the daemon has.
BusMessage FakeBus::replyTo(DBusMessage& call) const {
    const std::string member = dbus_message_get_member(&call);
    const std::string name = argumentOf(call);
    const dbus_bool_t isThere = left.contains(name) ? FALSE : TRUE;
    BusMessage reply(__real_dbus_message_new_method_return(&call));
    DBusMessageIter arguments; // not append_args, which may be the one that fails
    dbus_message_iter_init_append(reply.get(), &arguments);
    if (member == "GetConnectionUnixUser" && isThere == FALSE) {
        reply.reset(dbus_message_new_error(&call, DBUS_ERROR_NAME_HAS_NO_OWNER, "no such name"));
    } else if (member == "GetConnectionUnixUser") {
        const auto user = users.find(name);
        const dbus_uint32_t uid = user != users.end() ? user->second : 0;
        dbus_message_iter_append_basic(&arguments, DBUS_TYPE_UINT32, &uid);
    } else if (member == "NameHasOwner") {
        dbus_message_iter_append_basic(&arguments, DBUS_TYPE_BOOLEAN, &isThere);
    } else { // ListNames
        std::vector<std::string> names = {DBUS_SERVICE_DBUS, ":1.5"};
        std::transform(users.begin(), users.end(), std::back_inserter(names),
                       [](const auto& user) { return user.first; });
        DBusMessageIter elements;
        dbus_message_iter_open_container(&arguments, DBUS_TYPE_ARRAY, DBUS_TYPE_STRING_AS_STRING,
                                         &elements);
        for (const std::string& present : names) {
            const char* text = present.c_str();
            if (!left.contains(present)) {
                dbus_message_iter_append_basic(&elements, DBUS_TYPE_STRING, &text);
            }
        }
        dbus_message_iter_close_container(&arguments, &elements);
    }
    return reply;
}

void FakeBus::answerQuestion(BusMessage reply) {
    for (Question& question : asked) {
        if (!question.reply) {
            question.reply = reply ? std::move(reply) : replyTo(*question.call);
            question.notify(reinterpret_cast<DBusPendingCall*>(&question), question.notified);
            return;
        }
    }
}

namespace {

BusMessage arrived(DBusMessage* message, const char* sender) {
    dbus_message_set_serial(message, 7);
    dbus_message_set_sender(message, sender);
    return BusMessage(message);
}

} // namespace

BusMessage call(const char* member, const char* interface, const char* sender) {
    return arrived(
        dbus_message_new_method_call("com.kelvra.orvexd", "/com/kelvra/orvexd", interface, member),
        sender);
}

BusMessage signal(const char* member, const char* sender) {
    return arrived(
        __real_dbus_message_new_signal("/com/kelvra/orvexd", "com.kelvra.orvexd", member), sender);
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

dbus_bool_t __wrap_dbus_connection_send_with_reply(DBusConnection* connection, DBusMessage* call,
                                                   DBusPendingCall** pending, int timeout) {
    if (installed == nullptr) {
        return __real_dbus_connection_send_with_reply(connection, call, pending, timeout);
    }
    if (fails("dbus_connection_send_with_reply")) {
        return FALSE;
    }
    dbus_message_set_serial(call, 1000);
    FakeBus::Question& question = installed->asked.emplace_back();
    question.call.reset(dbus_message_ref(call));
    if (installed->answersAtOnce) {
        question.reply = installed->replyTo(*call);
    }
    *pending = reinterpret_cast<DBusPendingCall*>(&question);
    return TRUE;
}

dbus_bool_t __wrap_dbus_pending_call_set_notify(DBusPendingCall* pending,
                                                DBusPendingCallNotifyFunction function, void* data,
                                                DBusFreeFunction freeData) {
    if (installed == nullptr) {
        return __real_dbus_pending_call_set_notify(pending, function, data, freeData);
    }
    questionOf(pending).notify = function;
    questionOf(pending).notified = data;
    return fails("dbus_pending_call_set_notify") ? FALSE : TRUE;
}

dbus_bool_t __wrap_dbus_pending_call_get_completed(DBusPendingCall* pending) {
    if (installed == nullptr) {
        return __real_dbus_pending_call_get_completed(pending);
    }
    return questionOf(pending).reply ? TRUE : FALSE;
}

DBusMessage* __wrap_dbus_pending_call_steal_reply(DBusPendingCall* pending) {
    if (installed == nullptr) {
        return __real_dbus_pending_call_steal_reply(pending);
    }
    return dbus_message_ref(questionOf(pending).reply.get());
}

void __wrap_dbus_pending_call_cancel(DBusPendingCall* pending) {
    if (installed == nullptr) {
        __real_dbus_pending_call_cancel(pending);
    }
}

void __wrap_dbus_pending_call_unref(DBusPendingCall* pending) {
    if (installed == nullptr) {
        __real_dbus_pending_call_unref(pending);
        return;
    }
    installed->asked.remove_if(
        [pending](const FakeBus::Question& question) { return &question == &questionOf(pending); });
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
