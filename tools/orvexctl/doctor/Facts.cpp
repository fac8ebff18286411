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
constexpr const char* kUnit = "orvexd.service";
constexpr const char* kManager = "org.freedesktop.systemd1";
constexpr const char* kManagerPath = "/org/freedesktop/systemd1";
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

/// NAME=value.
void addPair(const std::string& entry, findings::Variables& variables) {
    if (const std::size_t equals = entry.find('='); equals != std::string::npos) {
        variables[entry.substr(0, equals)] = entry.substr(equals + 1);
    }
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

/// A property of an object of the service manager; null when it cannot be told.
VariantRef property(const Facts& facts, const std::string& path, const char* interface,
                    const char* name) {
    const VariantRef answer = call(facts, {kManager, path.c_str(), kProperties, "Get"},
                                   g_variant_new("(ss)", interface, name), nullptr);
    if (!answer) {
        return nullptr;
    }
    GVariant* value = nullptr;
    g_variant_get(answer.get(), "(v)", &value);
    return VariantRef{value};
}

class Unit {
public:
    Unit(const Facts& facts, std::string path) : facts_{facts}, path_{std::move(path)} {}

    [[nodiscard]] std::string text(const char* interface, const char* name) const {
        const VariantRef value = property(facts_, path_, interface, name);
        const bool good =
            value && g_variant_is_of_type(value.get(), G_VARIANT_TYPE_STRING) != FALSE;
        return good ? g_variant_get_string(value.get(), nullptr) : "";
    }

    /// Any number or truth.
    [[nodiscard]] std::int32_t number(const char* interface, const char* name) const {
        const VariantRef value = property(facts_, path_, interface, name);
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

    [[nodiscard]] std::vector<std::string> command() const {
        const VariantRef value = property(facts_, path_, kService, "ExecStart");
        if (!value || g_variant_n_children(value.get()) == 0) {
            return {};
        }
        const VariantRef command{g_variant_get_child_value(value.get(), 0)};
        const VariantRef words{g_variant_get_child_value(command.get(), 1)};
        return textsIn(words.get());
    }

    [[nodiscard]] findings::Variables environment() const {
        findings::Variables variables;
        const VariantRef value = property(facts_, path_, kService, "Environment");
        for (const std::string& entry : textsIn(value.get())) {
            addPair(entry, variables);
        }
        return variables;
    }

    /// Paths of EnvironmentFile=, without the mark of those that may be missing.
    [[nodiscard]] std::vector<std::string> environmentFiles() const {
        std::vector<std::string> paths;
        const VariantRef files = property(facts_, path_, kService, "EnvironmentFiles");
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
            const VariantRef value = property(facts_, path_, kService, name);
            if (value && g_variant_n_children(value.get()) > 0) {
                limits.push_back(std::string{name} + "=");
            }
        }
        for (const char* name : {"PrivateNetwork", "NetworkNamespacePath"}) {
            if (number(kService, name) != 0 || !text(kService, name).empty()) {
                limits.push_back(std::string{name} + "=");
            }
        }
        if (lacksFamily()) {
            limits.emplace_back("RestrictAddressFamilies=");
        }
        return limits;
    }

    static constexpr const char* kUnitInterface = "org.freedesktop.systemd1.Unit";
    static constexpr const char* kService = "org.freedesktop.systemd1.Service";

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
        const VariantRef value = property(facts_, path_, kService, "RestrictAddressFamilies");
        if (!value || g_variant_is_of_type(value.get(), G_VARIANT_TYPE("(bas)")) == FALSE) {
            return false;
        }
        const VariantRef isAllowed{g_variant_get_child_value(value.get(), 0)};
        const VariantRef names{g_variant_get_child_value(value.get(), 1)};
        const std::vector<std::string> families = textsIn(names.get());
        const bool allows = g_variant_get_boolean(isAllowed.get()) != FALSE;
        return std::any_of(kFamilies.begin(), kFamilies.end(), [&](const char* family) {
            const bool isNamed =
                std::find(families.begin(), families.end(), family) != families.end();
            return isNamed != allows;
        });
    }

    static constexpr std::array kFamilies = {"AF_UNIX", "AF_INET"};

    const Facts& facts_;
    std::string path_;
};

void gatherUnit(Facts& facts) {
    // "Load" reads the file if it has to; it starts nothing.
    const VariantRef answer =
        call(facts, {kManager, kManagerPath, "org.freedesktop.systemd1.Manager", "LoadUnit"},
             g_variant_new("(s)", kUnit), nullptr);
    if (!answer || g_variant_is_of_type(answer.get(), G_VARIANT_TYPE("(o)")) == FALSE) {
        return;
    }
    const char* path = nullptr;
    g_variant_get(answer.get(), "(&o)", &path);
    const Unit unit{facts, path};
    const std::vector<std::string> command = unit.command();
    facts.unit = UnitFacts{unit.text(Unit::kUnitInterface, "LoadState"),
                           unit.text(Unit::kUnitInterface, "ActiveState"),
                           unit.text(Unit::kUnitInterface, "SubState"),
                           unit.text(Unit::kService, "Result"),
                           unit.text(Unit::kUnitInterface, "FragmentPath"),
                           command.empty() ? "" : command.front(),
                           command,
                           unit.environment(),
                           unit.environmentFiles(),
                           unit.networkLimits(),
                           unit.number(Unit::kUnitInterface, "NeedDaemonReload") != 0,
                           static_cast<std::uint32_t>(unit.number(Unit::kService, "NRestarts")),
                           unit.number(Unit::kService, "ExecMainCode"),
                           unit.number(Unit::kService, "ExecMainStatus")};
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

Facts gatherFacts(std::chrono::seconds patience) {
    Facts facts;
    ErrorSlot error;
    facts.bus = connect(patience, error);
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
    gatherUnit(facts);
    return facts;
}

} // namespace orvexd::ctl
