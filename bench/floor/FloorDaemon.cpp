// The least that a daemon with this interface does: the libraries, the set-up on the bus and the
// main loop of orvexd, but every method is answered at once from memory. No checks, no threads, no
// server.

#include "support/BusHandles.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <curl/curl.h>
#include <dbus/dbus-glib-lowlevel.h>
#include <glib-unix.h>
#include <iostream>
#include <libxml/parser.h>
#include <span>
#include <string_view>
#include <vector>

namespace {

using orvexd::BusConnection;
using orvexd::BusMessage;

constexpr const char* kName = "com.kelvra.orvexd";
constexpr const char* kPath = "/com/kelvra/orvexd";
constexpr dbus_uint32_t kPartContinues = 2301;
constexpr dbus_uint32_t kResponseComplete = 2303;
constexpr std::size_t kLargestChunk = std::size_t{16} * 1024 * 1024;

/// What the methods answer; one request at a time.
struct Answers {
    std::vector<char> bytes;
    std::size_t size = 0; ///< of each request's answer
    std::size_t left = 0;
    dbus_uint32_t chunkSize = 0;
    dbus_uint32_t lastConnection = 0;
    dbus_uint32_t lastRequest = 0;
};

void send(DBusConnection* connection, const BusMessage& message) {
    dbus_connection_send(connection, message.get(), nullptr);
}

template <typename... Arguments>
void reply(DBusConnection* connection, DBusMessage* call, Arguments... arguments) {
    const BusMessage answer(dbus_message_new_method_return(call));
    dbus_message_append_args(answer.get(), arguments..., DBUS_TYPE_INVALID);
    send(connection, answer);
}

template <typename... Arguments>
void emit(DBusConnection* connection, const char* member, Arguments... arguments) {
    const BusMessage signal(dbus_message_new_signal(kPath, kName, member));
    dbus_message_append_args(signal.get(), arguments..., DBUS_TYPE_INVALID);
    send(connection, signal);
}

void onSendData(Answers& /*answers*/, DBusConnection* connection, DBusMessage* call) {
    const char* bytes = nullptr;
    int length = 0;
    dbus_bool_t last = FALSE;
    dbus_uint32_t ids[2] = {0, 0}; // NOLINT(*-avoid-c-arrays)
    dbus_message_get_args(call, nullptr, DBUS_TYPE_ARRAY, DBUS_TYPE_BYTE, &bytes, &length,
                          DBUS_TYPE_BOOLEAN, &last, DBUS_TYPE_UINT32, &ids[0], DBUS_TYPE_UINT32,
                          &ids[1], DBUS_TYPE_INVALID);
    const dbus_int32_t accepted = 0;
    reply(connection, call, DBUS_TYPE_INT32, &accepted);
}

void onGetData(Answers& answers, DBusConnection* connection, DBusMessage* call) {
    const std::size_t size = std::min<std::size_t>(answers.left, answers.chunkSize);
    answers.left -= size;
    const char* bytes = answers.bytes.data();
    const int length = static_cast<int>(size);
    const dbus_uint32_t code = answers.left == 0 ? kResponseComplete : kPartContinues;
    reply(connection, call, DBUS_TYPE_ARRAY, DBUS_TYPE_BYTE, &bytes, length, DBUS_TYPE_UINT32,
          &code);
}

void onConnect(Answers& answers, DBusConnection* connection, DBusMessage* call) {
    DBusMessageIter argument;
    dbus_message_iter_init(call, &argument);
    while (dbus_message_iter_has_next(&argument) != FALSE) { // the chunk size comes last
        dbus_message_iter_next(&argument);
    }
    dbus_message_iter_get_basic(&argument, &answers.chunkSize);
    ++answers.lastConnection;
    reply(connection, call, DBUS_TYPE_UINT32, &answers.lastConnection);
}

/// The client is asked for its data at once.
void onPrepare(Answers& answers, DBusConnection* connection, DBusMessage* call) {
    ++answers.lastRequest;
    answers.left = answers.size;
    reply(connection, call, DBUS_TYPE_UINT32, &answers.lastRequest);
    const dbus_uint32_t status = 1;
    emit(connection, "requestData", DBUS_TYPE_UINT32, &answers.lastConnection, DBUS_TYPE_UINT32,
         &answers.lastRequest);
    emit(connection, "connectionStatusChanged", DBUS_TYPE_UINT32, &status);
}

void onGet(Answers& /*answers*/, DBusConnection* connection, DBusMessage* call) {
    const BusMessage answer(dbus_message_new_method_return(call));
    DBusMessageIter arguments;
    DBusMessageIter variant;
    const dbus_uint32_t status = 1;
    dbus_message_iter_init_append(answer.get(), &arguments);
    dbus_message_iter_open_container(&arguments, DBUS_TYPE_VARIANT, DBUS_TYPE_UINT32_AS_STRING,
                                     &variant);
    dbus_message_iter_append_basic(&variant, DBUS_TYPE_UINT32, &status);
    dbus_message_iter_close_container(&arguments, &variant);
    send(connection, answer);
}

struct Method {
    std::string_view name;
    void (*run)(Answers& answers, DBusConnection* connection, DBusMessage* call);
};

constexpr std::array<Method, 5> kMethods = {{{"sendData", onSendData},
                                             {"getData", onGetData},
                                             {"prepare", onPrepare},
                                             {"Get", onGet},
                                             {"connect", onConnect}}};

DBusHandlerResult filter(DBusConnection* connection, DBusMessage* message, void* answers) noexcept {
    if (dbus_message_get_type(message) != DBUS_MESSAGE_TYPE_METHOD_CALL) {
        return DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
    }
    const std::string_view member = dbus_message_get_member(message);
    for (const Method& method : kMethods) {
        if (method.name == member) {
            method.run(*static_cast<Answers*>(answers), connection, message);
            return DBUS_HANDLER_RESULT_HANDLED;
        }
    }
    return DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
}

/// As orvexd sets up its bus. @return null when there is no bus or the name is taken.
BusConnection setUpBus(Answers& answers) {
    BusConnection connection(dbus_bus_get(DBUS_BUS_SYSTEM, nullptr));
    if (!connection) {
        return nullptr;
    }
    dbus_threads_init_default();
    dbus_connection_setup_with_g_main(connection.get(), nullptr);
    const int owner = dbus_bus_request_name(
        connection.get(), kName, DBUS_NAME_FLAG_REPLACE_EXISTING | DBUS_NAME_FLAG_DO_NOT_QUEUE,
        nullptr);
    if (owner != DBUS_REQUEST_NAME_REPLY_PRIMARY_OWNER) {
        return nullptr;
    }
    dbus_bus_add_match(connection.get(), "interface='com.kelvra.orvexd'", nullptr);
    dbus_connection_add_filter(connection.get(), filter, &answers, nullptr);
    return connection;
}

gboolean stop(gpointer loop) noexcept {
    g_main_loop_quit(static_cast<GMainLoop*>(loop));
    return G_SOURCE_REMOVE;
}

constexpr const char* kUsage =
    "usage: floor_daemon [--bare] [--answer BYTES]\n"
    "\n"
    "Owns the daemon's name on the system bus and answers every method at once from memory.\n"
    "\n"
    "  --answer BYTES   size of each request's answer (default 0)\n"
    "  --bare           libcurl, the TLS library and libxml2 are linked, but not initialised\n";

} // namespace

int main(int argc, char** argv) {
    Answers answers;
    bool bare = false;
    const std::span<char*> words(argv, static_cast<std::size_t>(argc));
    for (std::size_t i = 1; i < words.size(); ++i) {
        const std::string_view word = words[i];
        if (word == "--bare") {
            bare = true;
        } else if (word == "--answer" && i + 1 < words.size()) {
            answers.size = std::strtoull(words[++i], nullptr, 10);
        } else {
            std::cerr << kUsage;
            return 2;
        }
    }
    answers.bytes.assign(std::min(answers.size, kLargestChunk), 'x');
    if (!bare) {
        curl_global_init(CURL_GLOBAL_SSL);
        xmlInitParser();
    }
    const BusConnection connection = setUpBus(answers);
    if (!connection) {
        std::cerr << "floor_daemon: no bus, or the name belongs to somebody else\n";
        return 1;
    }
    GMainLoop* loop = g_main_loop_new(nullptr, FALSE);
    g_unix_signal_add(SIGTERM, stop, loop);
    g_main_loop_run(loop);
    g_main_loop_unref(loop);
    return 0;
}
