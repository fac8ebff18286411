#include "doctor/UnitFacts.h"

#include "GioHandles.h"

#include <algorithm>
#include <array>
#include <csignal>

namespace orvexd::ctl {
namespace {

constexpr const char* kUnit = "orvexd.service";
constexpr const char* kManager = "org.freedesktop.systemd1";
constexpr const char* kManagerPath = "/org/freedesktop/systemd1";
constexpr int kExited = 1; // CLD_EXITED

/// The service manager, on this bus.
struct Manager {
    GDBusConnection* bus;
    int patience;

    /// @return null on failure, and when the answer is of another type.
    [[nodiscard]] VariantRef call(const char* path, const char* interface, const char* member,
                                  GVariant* arguments, const char* type) const {
        return VariantRef{g_dbus_connection_call_sync(
            bus, kManager, path, interface, member, arguments, G_VARIANT_TYPE(type),
            G_DBUS_CALL_FLAGS_NO_AUTO_START, patience, nullptr, nullptr)};
    }

    /// All properties of an interface; null on failure.
    [[nodiscard]] VariantRef properties(const char* path, const char* interface) const {
        const VariantRef answer = call(path, "org.freedesktop.DBus.Properties", "GetAll",
                                       g_variant_new("(s)", interface), "(a{sv})");
        return answer ? VariantRef{g_variant_get_child_value(answer.get(), 0)} : nullptr;
    }
};

/// The properties of one interface of the unit. What is not there, or is of another type, is empty.
class Properties {
public:
    explicit Properties(VariantRef values) : values_{std::move(values)} {}

    [[nodiscard]] VariantRef value(const char* name) const {
        return values_ ? VariantRef{g_variant_lookup_value(values_.get(), name, nullptr)} : nullptr;
    }

    [[nodiscard]] std::string text(const char* name) const {
        const VariantRef found = value(name);
        const bool good =
            found && g_variant_is_of_type(found.get(), G_VARIANT_TYPE_STRING) != FALSE;
        return good ? g_variant_get_string(found.get(), nullptr) : "";
    }

    /// Any number or truth.
    [[nodiscard]] std::int32_t number(const char* name) const {
        const VariantRef found = value(name);
        if (!found) {
            return 0;
        }
        if (g_variant_is_of_type(found.get(), G_VARIANT_TYPE_BOOLEAN) != FALSE) {
            return g_variant_get_boolean(found.get()) != FALSE ? 1 : 0;
        }
        if (g_variant_is_of_type(found.get(), G_VARIANT_TYPE_UINT32) != FALSE) {
            return static_cast<std::int32_t>(g_variant_get_uint32(found.get()));
        }
        return g_variant_is_of_type(found.get(), G_VARIANT_TYPE_INT32) != FALSE
                   ? g_variant_get_int32(found.get())
                   : 0;
    }

    [[nodiscard]] std::vector<std::string> command() const {
        const VariantRef commands = value("ExecStart");
        if (!commands || g_variant_n_children(commands.get()) == 0) {
            return {};
        }
        const VariantRef command{g_variant_get_child_value(commands.get(), 0)};
        const VariantRef words{g_variant_get_child_value(command.get(), 1)};
        return textsIn(words.get());
    }

    [[nodiscard]] findings::Variables environment() const {
        findings::Variables variables;
        const VariantRef entries = value("Environment");
        for (const std::string& entry : textsIn(entries.get())) {
            addPair(entry, variables);
        }
        return variables;
    }

    /// Paths of EnvironmentFile=, without the mark of those that may be missing.
    [[nodiscard]] std::vector<std::string> environmentFiles() const {
        std::vector<std::string> paths;
        const VariantRef files = value("EnvironmentFiles");
        for (gsize i = 0; files && i < g_variant_n_children(files.get()); ++i) {
            const VariantRef file{g_variant_get_child_value(files.get(), i)};
            const VariantRef path{g_variant_get_child_value(file.get(), 0)};
            paths.emplace_back(g_variant_get_string(path.get(), nullptr));
        }
        return paths;
    }

    /// Settings, as they are written in a unit, that keep the service from where the probe gets.
    [[nodiscard]] std::vector<std::string> networkLimits() const {
        std::vector<std::string> limits;
        for (const char* name : {"IPAddressDeny", "IPIngressFilterPath", "IPEgressFilterPath"}) {
            const VariantRef list = value(name);
            if (list && g_variant_n_children(list.get()) > 0) {
                limits.push_back(std::string{name} + "=");
            }
        }
        for (const char* name : {"PrivateNetwork", "NetworkNamespacePath"}) {
            if (number(name) != 0 || !text(name).empty()) {
                limits.push_back(std::string{name} + "=");
            }
        }
        if (lacksFamily()) {
            limits.emplace_back("RestrictAddressFamilies=");
        }
        return limits;
    }

private:
    [[nodiscard]] static std::vector<std::string> textsIn(GVariant* list) {
        std::vector<std::string> texts;
        if (list != nullptr && g_variant_is_of_type(list, G_VARIANT_TYPE_STRING_ARRAY) != FALSE) {
            for (gsize i = 0; i < g_variant_n_children(list); ++i) {
                const VariantRef text{g_variant_get_child_value(list, i)};
                texts.emplace_back(g_variant_get_string(text.get(), nullptr));
            }
        }
        return texts;
    }

    /// Whether the service may make no socket of a family that the daemon needs.
    [[nodiscard]] bool lacksFamily() const {
        const VariantRef setting = value("RestrictAddressFamilies");
        if (!setting || g_variant_is_of_type(setting.get(), G_VARIANT_TYPE("(bas)")) == FALSE) {
            return false;
        }
        const VariantRef isAllowed{g_variant_get_child_value(setting.get(), 0)};
        const VariantRef names{g_variant_get_child_value(setting.get(), 1)};
        const std::vector<std::string> families = textsIn(names.get());
        const bool allows = g_variant_get_boolean(isAllowed.get()) != FALSE;
        return std::any_of(kFamilies.begin(), kFamilies.end(), [&](const char* family) {
            const bool isNamed =
                std::find(families.begin(), families.end(), family) != families.end();
            return isNamed != allows;
        });
    }

    static constexpr std::array kFamilies = {"AF_UNIX", "AF_INET"};

    VariantRef values_; // null when they are not known
};

} // namespace

void addPair(const std::string& entry, findings::Variables& variables) {
    if (const std::size_t equals = entry.find('='); equals != std::string::npos) {
        variables[entry.substr(0, equals)] = entry.substr(equals + 1);
    }
}

std::optional<UnitFacts> gatherUnit(GDBusConnection* bus, int patience) {
    const Manager manager{bus, patience};
    // "Load" reads the file if it has to; it starts nothing.
    const VariantRef answer = manager.call(kManagerPath, "org.freedesktop.systemd1.Manager",
                                           "LoadUnit", g_variant_new("(s)", kUnit), "(o)");
    if (!answer) {
        return std::nullopt;
    }
    const char* path = nullptr;
    g_variant_get(answer.get(), "(&o)", &path);
    const Properties unit{manager.properties(path, "org.freedesktop.systemd1.Unit")};
    const Properties service{manager.properties(path, "org.freedesktop.systemd1.Service")};
    return UnitFacts{unit.text("LoadState"),
                     unit.text("ActiveState"),
                     unit.text("SubState"),
                     service.text("Result"),
                     unit.text("FragmentPath"),
                     service.command(),
                     service.environment(),
                     service.environmentFiles(),
                     service.networkLimits(),
                     unit.number("NeedDaemonReload") != 0,
                     static_cast<std::uint32_t>(service.number("NRestarts")),
                     service.number("ExecMainCode"),
                     service.number("ExecMainStatus")};
}

std::string endInWords(const UnitFacts& unit) {
    if (unit.result == "start-limit-hit") {
        return "it was tried too often within a short time";
    }
    if (unit.result == "resources") {
        return "the service manager could not prepare it: the file of the five variables is "
               "missing or cannot be read as such, most likely";
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
               "bus cannot be reached, the bus's policy does not let it have its name, or another "
               "process has the name";
    }
    return unit.exitStatus >= 200
               ? "the service manager could not run it, status " + std::to_string(unit.exitStatus)
               : "it ended with status " + std::to_string(unit.exitStatus);
}

} // namespace orvexd::ctl
