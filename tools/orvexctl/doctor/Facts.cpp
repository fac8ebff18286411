#include "doctor/Facts.h"

#include "Timer.h"
#include "findings/Files.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <climits>
#include <string_view>
#include <unistd.h>

namespace orvexd::ctl {
namespace {

constexpr const char* kName = "com.kelvra.orvexd";
constexpr const char* kPath = "/com/kelvra/orvexd";
constexpr const char* kProperties = "org.freedesktop.DBus.Properties";
constexpr int kPatience = 5000;         // milliseconds for a call
constexpr gint64 kLongest = 20'000'000; // microseconds for all of them
constexpr int kShortest = 100;          // milliseconds for a call when these are over

/// A method and whom it belongs to.
struct Method {
    const char* name;
    const char* path;
    const char* interface;
    const char* member;
};

/// For the next call: many that are not answered do not add up to minutes.
int patience() {
    static const gint64 kLatest = g_get_monotonic_time() + kLongest;
    const gint64 left = (kLatest - g_get_monotonic_time()) / 1000;
    return static_cast<int>(std::clamp<gint64>(left, kShortest, kPatience));
}

/// Calls without starting anybody. @return null on failure.
VariantRef call(const Facts& facts, const Method& method, GVariant* arguments, GError** error) {
    return VariantRef{g_dbus_connection_call_sync(
        facts.bus.get(), method.name, method.path, method.interface, method.member, arguments,
        nullptr, G_DBUS_CALL_FLAGS_NO_AUTO_START, patience(), nullptr, error)};
}

VariantRef askBus(const Facts& facts, const char* member, GVariant* arguments) {
    return call(facts,
                {"org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", member},
                arguments, nullptr);
}

std::optional<std::uint32_t> numberFromBus(const Facts& facts, const char* member) {
    const VariantRef answer = askBus(facts, member, g_variant_new("(s)", kName));
    if (!answer || g_variant_is_of_type(answer.get(), G_VARIANT_TYPE("(u)")) == FALSE) {
        return std::nullopt;
    }
    std::uint32_t number = 0;
    g_variant_get(answer.get(), "(u)", &number);
    return number;
}

std::vector<std::string> piecesOf(const std::string& path) {
    std::vector<std::string> pieces;
    const std::string text = findings::textOf(path).value_or("");
    for (std::size_t at = 0; at < text.size();) {
        const std::size_t end = std::min(text.find('\0', at), text.size());
        pieces.push_back(text.substr(at, end - at));
        at = end + 1;
    }
    return pieces;
}

std::string linkOf(const std::string& path) {
    std::array<char, PATH_MAX> target{};
    const ssize_t size = readlink(path.c_str(), target.data(), target.size());
    return size > 0 ? std::string(target.data(), static_cast<std::size_t>(size)) : std::string();
}

DaemonFacts daemonOf(std::uint32_t pid, std::uint32_t uid) {
    const std::string process = "/proc/" + std::to_string(pid);
    DaemonFacts daemon{pid, uid, linkOf(process + "/exe"), {}, {}};
    if (uid != 0) {
        return daemon;
    }
    daemon.arguments = piecesOf(process + "/cmdline");
    if (findings::textOf(process + "/environ")) {
        daemon.environment.emplace();
        for (const std::string& entry : piecesOf(process + "/environ")) {
            addPair(entry, *daemon.environment);
        }
    }
    return daemon;
}

void gatherDaemon(Facts& facts) {
    const auto pid = numberFromBus(facts, "GetConnectionUnixProcessID");
    const auto uid = numberFromBus(facts, "GetConnectionUnixUser");
    if (pid && uid) {
        facts.daemon = daemonOf(*pid, *uid);
    }
}

void gatherActivation(Facts& facts) {
    const VariantRef answer = askBus(facts, "ListActivatableNames", nullptr);
    if (!answer || g_variant_is_of_type(answer.get(), G_VARIANT_TYPE("(as)")) == FALSE) {
        return;
    }
    GVariantIter* names = nullptr;
    g_variant_get(answer.get(), "(as)", &names);
    const char* name = nullptr;
    while (g_variant_iter_loop(names, "&s", &name) != FALSE) {
        facts.activatable |= std::string_view{name} == kName;
    }
    g_variant_iter_free(names);
}

void gatherStatus(Facts& facts) {
    ErrorSlot error;
    const VariantRef answer = call(facts, {kName, kPath, kProperties, "Get"},
                                   g_variant_new("(ss)", kName, "connectionStatus"), error.out());
    if (answer) {
        VariantRef value;
        GVariant* boxed = nullptr;
        g_variant_get(answer.get(), "(v)", &boxed);
        value.reset(boxed);
        if (g_variant_is_of_type(value.get(), G_VARIANT_TYPE_UINT32) != FALSE) {
            facts.status = g_variant_get_uint32(value.get());
        }
    } else if (facts.daemon) {
        facts.callDenied = g_error_matches(&*error, G_DBUS_ERROR, G_DBUS_ERROR_ACCESS_DENIED);
        facts.callFault = error->message;
    }
}

/// Who takes a connection and says nothing is given up.
ObjectRef<GDBusConnection> connect(std::chrono::seconds patience, ErrorSlot& error) {
    const ObjectRef<GCancellable> cancel{g_cancellable_new()};
    Timer timer;
    timer.once(patience, [&] { g_cancellable_cancel(cancel.get()); });
    struct Answer {
        ObjectRef<GDBusConnection> bus;
        ErrorSlot& error;
        bool over = false;
    } answer{nullptr, error};
    g_bus_get(
        G_BUS_TYPE_SYSTEM, cancel.get(),
        [](GObject* /*source*/, GAsyncResult* result, gpointer to) {
            auto& given = *static_cast<Answer*>(to);
            given.bus.reset(g_bus_get_finish(result, given.error.out()));
            given.over = true;
        },
        &answer);
    while (!answer.over) {
        g_main_context_iteration(nullptr, TRUE);
    }
    return std::move(answer.bus);
}

} // namespace

Facts gatherFacts(std::chrono::seconds forBus) {
    Facts facts;
    ErrorSlot error;
    facts.bus = connect(forBus, error);
    if (!facts.bus) {
        facts.busFault = g_error_matches(&*error, G_IO_ERROR, G_IO_ERROR_CANCELLED) != FALSE
                             ? "it takes the connection and says nothing"
                             : error->message;
        return facts;
    }
    g_dbus_connection_set_exit_on_close(facts.bus.get(), FALSE);
    gatherActivation(facts);
    gatherDaemon(facts);
    gatherStatus(facts);
    facts.unit = gatherUnit(facts.bus.get(), patience());
    return facts;
}

} // namespace orvexd::ctl
