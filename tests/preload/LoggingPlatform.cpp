// The platform library as far as the daemon needs it, and a log of the order in which the daemon
// calls it and some functions of the other libraries.
//
// Preloaded; by its soname it takes the platform library's place. Each call is a line in the file
// that ORVEXD_CALL_LOG names. A function that ORVEXD_FAILING_CALL names fails: daemon by -1, getuid
// and geteuid by a user that is not root.

#include <cerrno>
#include <cstdlib>
#include <dbus/dbus.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <glib-unix.h>
#include <memory>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <trilba/Debug.h>
#include <trilba/core/Directory.h>
#include <trilba/core/ISystemLocationSettings.h>
#include <trilba/core/SystemInfo.h>
#include <trilba/network/IConnectionManager.h>
#include <unistd.h>

namespace {

void log(const std::string& call) {
    const char* path = std::getenv("ORVEXD_CALL_LOG");
    const int file = path != nullptr ? open(path, O_WRONLY | O_APPEND | O_CLOEXEC) : -1;
    if (file >= 0) {
        const std::string line = call + '\n';
        [[maybe_unused]] const ssize_t written = write(file, line.data(), line.size());
        close(file);
    }
}

/// Logs a call that comes from the daemon itself, not from a library. @return whether it does.
bool logFrom(const void* caller, const std::string& call) {
    Dl_info info{};
    const bool known = dladdr(caller, &info) != 0 && info.dli_fname != nullptr;
    const bool own = known && std::string_view(info.dli_fname).ends_with("/orvexd");
    if (own) {
        log(call);
    }
    return own;
}

bool shallFail(std::string_view function) {
    const char* failing = std::getenv("ORVEXD_FAILING_CALL");
    return failing != nullptr && function == failing;
}

/// The function for which the one of this name stands in.
template <typename Function> Function* next(const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

struct Paths {
    std::string preinstalled;
    std::string storage;
};

Paths& paths() {
    static Paths instance;
    return instance;
}

class Settings : public trilba::core::ISystemLocationSettings {
public:
    Settings() = default;
    ~Settings() override { log("~ISystemLocationSettings"); }
    Settings(const Settings&) = delete;
    Settings& operator=(const Settings&) = delete;
    Settings(Settings&&) = delete;
    Settings& operator=(Settings&&) = delete;

    bool isNetworkPositioningPermitted() override { return true; }
    bool isNetworkPositioningStated() override { return true; }
    bool isNetworkPositioningEnabled() override { return true; }
};

class Manager : public trilba::network::IConnectionManager {
public:
    Manager() = default;
    ~Manager() override { log("~IConnectionManager"); }
    Manager(const Manager&) = delete;
    Manager& operator=(const Manager&) = delete;
    Manager(Manager&&) = delete;
    Manager& operator=(Manager&&) = delete;

    void getConnections(trilba::network::ConnectionInfoContainer& list) override { list.clear(); }
    std::size_t connectionCount() override { return 0; }
    bool hasActiveConnection() override { return false; }
    void registerObserver(trilba::network::IConnectionManagerObserver* /*observer*/) override {}
    void unregisterObserver(trilba::network::IConnectionManagerObserver* /*observer*/) override {}
    bool findConnection(const std::string& /*name*/,
                        trilba::network::ConnectionInfo& /*connection*/) override {
        return false;
    }
    int lookUpProxy(const std::string& /*url*/, trilba::network::ProxyQuery* /*query*/) override {
        return trilba::network::kProxyNone;
    }
};

} // namespace

// -- the platform library ------------------------------------------------------------------------

namespace trilba {

void Debug::init() noexcept {
    log("Debug::init");
}
void Debug::release() noexcept {
    log("Debug::release");
}

namespace core {

void Directory::setPreinstalledFilesPath(const std::string& path) {
    log("setPreinstalledFilesPath " + path);
    paths().preinstalled = path;
}
void Directory::getPreinstalledFilesPath(std::string& path) {
    path = getPreinstalledFilesPath();
}
std::string Directory::getPreinstalledFilesPath() {
    log("getPreinstalledFilesPath");
    return paths().preinstalled;
}
bool Directory::setDefaultStoragePath(const std::string& path, bool create) {
    log("setDefaultStoragePath " + path + (create ? " true" : " false"));
    paths().storage = path;
    return true;
}
void Directory::getDefaultStoragePath(std::string& path, bool& isSet) {
    log("getDefaultStoragePath");
    path = paths().storage;
    isSet = true;
}

void SystemInfo::getPlatformId(std::string& id) {
    log("getPlatformId");
    id = "linux-test";
}
void SystemInfo::getImei(std::string& imei) {
    imei.clear();
}
void SystemInfo::getImsi(std::string& imsi) {
    imsi.clear();
}
void SystemInfo::getMMF(std::string& firmwareId) {
    firmwareId.clear();
}

ISystemLocationSettings* ISystemLocationSettings::create() {
    log("ISystemLocationSettings::create");
    return std::make_unique<Settings>().release();
}

} // namespace core

namespace network {

IConnectionManager* IConnectionManager::create(INetworkAdaptation* /*adaptation*/) {
    log("IConnectionManager::create");
    return std::make_unique<Manager>().release();
}

} // namespace network

} // namespace trilba

// -- functions of other libraries ----------------------------------------------------------------

// The C library names these parameters with reserved names.
// NOLINTBEGIN(readability-inconsistent-declaration-parameter-name)
extern "C" {

mode_t umask(mode_t mask) noexcept {
    logFrom(__builtin_return_address(0), "umask " + std::to_string(mask));
    return next<decltype(umask)>("umask")(mask);
}

int daemon(int noChdir, int noClose) noexcept {
    log("daemon");
    if (shallFail("daemon")) {
        errno = EPERM;
        return -1;
    }
    return next<decltype(daemon)>("daemon")(noChdir, noClose);
}

uid_t getuid() noexcept {
    const bool own = logFrom(__builtin_return_address(0), "getuid");
    return own && shallFail("getuid") ? 1 : next<decltype(getuid)>("getuid")();
}

uid_t geteuid() noexcept {
    const bool own = logFrom(__builtin_return_address(0), "geteuid");
    return own && shallFail("geteuid") ? 1 : next<decltype(geteuid)>("geteuid")();
}

char* getenv(const char* name) noexcept {
    logFrom(__builtin_return_address(0), std::string("getenv ") + name);
    return next<decltype(getenv)>("getenv")(name);
}

int access(const char* path, int mode) noexcept {
    logFrom(__builtin_return_address(0), std::string("access ") + path);
    return next<decltype(access)>("access")(path, mode);
}

guint g_unix_signal_add(gint number, GSourceFunc handler, gpointer data) {
    log("g_unix_signal_add " + std::to_string(number));
    return next<decltype(g_unix_signal_add)>("g_unix_signal_add")(number, handler, data);
}

void g_main_loop_run(GMainLoop* loop) {
    log("g_main_loop_run");
    next<decltype(g_main_loop_run)>("g_main_loop_run")(loop);
}

DBusConnection* dbus_bus_get(DBusBusType type, DBusError* error) {
    log("dbus_bus_get");
    return next<decltype(dbus_bus_get)>("dbus_bus_get")(type, error);
}

int dbus_bus_request_name(DBusConnection* connection, const char* name, unsigned flags,
                          DBusError* error) {
    log("dbus_bus_request_name");
    return next<decltype(dbus_bus_request_name)>("dbus_bus_request_name")(connection, name, flags,
                                                                          error);
}

void dbus_connection_set_exit_on_disconnect(DBusConnection* connection, dbus_bool_t ends) {
    logFrom(__builtin_return_address(0),
            "dbus_connection_set_exit_on_disconnect " + std::to_string(ends));
    next<decltype(dbus_connection_set_exit_on_disconnect)>(
        "dbus_connection_set_exit_on_disconnect")(connection, ends);
}

void dbus_bus_remove_match(DBusConnection* connection, const char* rule, DBusError* error) {
    log("dbus_bus_remove_match");
    next<decltype(dbus_bus_remove_match)>("dbus_bus_remove_match")(connection, rule, error);
}

void dbus_connection_remove_filter(DBusConnection* connection, DBusHandleMessageFunction function,
                                   void* data) {
    log("dbus_connection_remove_filter");
    next<decltype(dbus_connection_remove_filter)>("dbus_connection_remove_filter")(connection,
                                                                                   function, data);
}

void dbus_connection_unref(DBusConnection* connection) {
    logFrom(__builtin_return_address(0), "dbus_connection_unref");
    next<decltype(dbus_connection_unref)>("dbus_connection_unref")(connection);
}

} // extern "C"
// NOLINTEND(readability-inconsistent-declaration-parameter-name)
