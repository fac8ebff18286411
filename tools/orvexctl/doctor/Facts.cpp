#include "doctor/Facts.h"

#include "findings/Files.h"

#include <array>
#include <climits>
#include <string_view>
#include <unistd.h>

namespace orvexd::ctl {
namespace {

constexpr const char* kName = "com.kelvra.orvexd";
constexpr const char* kPath = "/com/kelvra/orvexd";
constexpr const char* kProperties = "org.freedesktop.DBus.Properties";
constexpr int kPatience = 5000; // milliseconds

/// A method and whom it belongs to.
struct Method {
    const char* name;
    const char* path;
    const char* interface;
    const char* member;
};

/// Calls without starting anybody. @return null on failure.
VariantRef call(const Facts& facts, const Method& method, GVariant* arguments, GError** error) {
    return VariantRef{g_dbus_connection_call_sync(
        facts.bus.get(), method.name, method.path, method.interface, method.member, arguments,
        nullptr, G_DBUS_CALL_FLAGS_NO_AUTO_START, kPatience, nullptr, error)};
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
    DaemonFacts daemon{pid, uid, linkOf(process + "/exe"), piecesOf(process + "/cmdline"), {}};
    if (findings::textOf(process + "/environ")) {
        daemon.environment.emplace();
        for (const std::string& entry : piecesOf(process + "/environ")) {
            const std::size_t equals = std::min(entry.find('='), entry.size() - 1);
            daemon.environment->emplace(entry.substr(0, equals), entry.substr(equals + 1));
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

} // namespace

Facts gatherFacts() {
    Facts facts;
    ErrorSlot error;
    facts.bus.reset(g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, error.out()));
    if (!facts.bus) {
        facts.busFault = error->message;
        return facts;
    }
    g_dbus_connection_set_exit_on_close(facts.bus.get(), FALSE);
    gatherActivation(facts);
    gatherDaemon(facts);
    gatherStatus(facts);
    facts.unit = gatherUnit(facts.bus.get());
    return facts;
}

} // namespace orvexd::ctl
