#include "doctor/UnitFacts.h"

#include "GioHandles.h"

#include <csignal>

namespace orvexd::ctl {
namespace {

constexpr const char* kUnit = "orvexd.service";
constexpr const char* kManager = "org.freedesktop.systemd1";
constexpr const char* kManagerPath = "/org/freedesktop/systemd1";
constexpr int kManagerPatience = 5000; // milliseconds
constexpr int kExited = 1;             // CLD_EXITED

/// @return null on failure.
VariantRef call(GDBusConnection* bus, const char* path, const char* interface, const char* member,
                GVariant* arguments) {
    return VariantRef{g_dbus_connection_call_sync(bus, kManager, path, interface, member, arguments,
                                                  nullptr, G_DBUS_CALL_FLAGS_NO_AUTO_START,
                                                  kManagerPatience, nullptr, nullptr)};
}

/// A property of an object of the service manager; null when it cannot be told.
VariantRef property(GDBusConnection* bus, const std::string& path, const char* interface,
                    const char* name) {
    const VariantRef answer = call(bus, path.c_str(), "org.freedesktop.DBus.Properties", "Get",
                                   g_variant_new("(ss)", interface, name));
    if (!answer) {
        return nullptr;
    }
    GVariant* value = nullptr;
    g_variant_get(answer.get(), "(v)", &value);
    return VariantRef{value};
}

class Unit {
public:
    Unit(GDBusConnection* bus, std::string path) : bus_{bus}, path_{std::move(path)} {}

    [[nodiscard]] std::string text(const char* interface, const char* name) const {
        const VariantRef value = property(bus_, path_, interface, name);
        const bool good =
            value && g_variant_is_of_type(value.get(), G_VARIANT_TYPE_STRING) != FALSE;
        return good ? g_variant_get_string(value.get(), nullptr) : "";
    }

    /// Any number or truth.
    [[nodiscard]] std::int32_t number(const char* interface, const char* name) const {
        const VariantRef value = property(bus_, path_, interface, name);
        if (!value) {
            return 0;
        }
        if (g_variant_is_of_type(value.get(), G_VARIANT_TYPE_BOOLEAN) != FALSE) {
            return g_variant_get_boolean(value.get()) != FALSE ? 1 : 0;
        }
        if (g_variant_is_of_type(value.get(), G_VARIANT_TYPE_UINT32) != FALSE) {
            return static_cast<std::int32_t>(g_variant_get_uint32(value.get()));
        }
        return g_variant_is_of_type(value.get(), G_VARIANT_TYPE_INT32) != FALSE
                   ? g_variant_get_int32(value.get())
                   : 0;
    }

    [[nodiscard]] std::string program() const {
        const VariantRef value = property(bus_, path_, kService, "ExecStart");
        if (!value || g_variant_n_children(value.get()) == 0) {
            return {};
        }
        const VariantRef command{g_variant_get_child_value(value.get(), 0)};
        const VariantRef path{g_variant_get_child_value(command.get(), 0)};
        return g_variant_get_string(path.get(), nullptr);
    }

    static constexpr const char* kUnitInterface = "org.freedesktop.systemd1.Unit";
    static constexpr const char* kService = "org.freedesktop.systemd1.Service";

private:
    GDBusConnection* bus_;
    std::string path_;
};

} // namespace

std::optional<UnitFacts> gatherUnit(GDBusConnection* bus) {
    // "Load" reads the file if it has to; it starts nothing.
    const VariantRef answer = call(bus, kManagerPath, "org.freedesktop.systemd1.Manager",
                                   "LoadUnit", g_variant_new("(s)", kUnit));
    if (!answer || g_variant_is_of_type(answer.get(), G_VARIANT_TYPE("(o)")) == FALSE) {
        return std::nullopt;
    }
    const char* path = nullptr;
    g_variant_get(answer.get(), "(&o)", &path);
    const Unit unit{bus, path};
    return UnitFacts{unit.text(Unit::kUnitInterface, "LoadState"),
                     unit.text(Unit::kUnitInterface, "ActiveState"),
                     unit.text(Unit::kUnitInterface, "SubState"),
                     unit.text(Unit::kService, "Result"),
                     unit.text(Unit::kUnitInterface, "FragmentPath"),
                     unit.program(),
                     unit.number(Unit::kUnitInterface, "NeedDaemonReload") != 0,
                     static_cast<std::uint32_t>(unit.number(Unit::kService, "NRestarts")),
                     unit.number(Unit::kService, "ExecMainCode"),
                     unit.number(Unit::kService, "ExecMainStatus")};
}

std::string endInWords(const UnitFacts& unit) {
    if (unit.result == "start-limit-hit") {
        return "it was tried too often within a short time";
    }
    if (unit.result == "resources") {
        return "the service manager could not prepare it: the file of the five variables is "
               "missing, most likely";
    }
    if (unit.exitCode == 0) {
        return "the check before its start found something broken";
    }
    if (unit.exitCode != kExited) {
        const char* name = unit.exitStatus == SIGABRT
                               ? ": orvexd.schema is malformed, or the bus took no message"
                               : "";
        return "signal " + std::to_string(unit.exitStatus) + " ended it" + name;
    }
    if (unit.exitStatus == 1) {
        return "it ended with status 1: it is not root, one of the five variables is missing, the "
               "bus cannot be reached, or another process has its name";
    }
    return unit.exitStatus >= 200
               ? "the service manager could not run it, status " + std::to_string(unit.exitStatus)
               : "it ended with status " + std::to_string(unit.exitStatus);
}

} // namespace orvexd::ctl
