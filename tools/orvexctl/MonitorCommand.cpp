#include "MonitorCommand.h"

#include "Bus.h"
#include "Failure.h"
#include "JsonLine.h"
#include "OptionParser.h"
#include "Output.h"
#include "SignalText.h"
#include "StopSignals.h"
#include "Wait.h"

#include <optional>

namespace orvexd::ctl {
namespace {

/// Prints what it receives until it is stopped.
class SignalPrinter {
public:
    SignalPrinter(GDBusConnection* bus, bool json)
        : bus_{bus},
          json_{json},
          loop_{g_main_loop_new(nullptr, FALSE)},
          // Without a sender in the rule, so that the clients' cancel is seen as well.
          subscription_{g_dbus_connection_signal_subscribe(
              bus, nullptr, kInterface, nullptr, nullptr, nullptr, G_DBUS_SIGNAL_FLAGS_NONE,
              received, this, nullptr)},
          watch_{g_bus_watch_name_on_connection(bus, kBusName, G_BUS_NAME_WATCHER_FLAGS_NONE,
                                                appeared, nullptr, this, nullptr)} {
        g_signal_connect(bus_, "closed", G_CALLBACK(busClosed), this);
    }
    ~SignalPrinter() {
        g_cancellable_cancel(gone_.get());
        g_bus_unwatch_name(watch_);
        g_dbus_connection_signal_unsubscribe(bus_, subscription_);
        g_signal_handlers_disconnect_by_data(bus_, this);
    }
    SignalPrinter(const SignalPrinter&) = delete;
    SignalPrinter& operator=(const SignalPrinter&) = delete;

    /// @throws Failure
    void run() {
        const StopSignals signals{[this](int /*signal*/) { g_main_loop_quit(loop_.get()); }};
        g_main_loop_run(loop_.get());
        if (failure_) {
            throw Failure{*failure_};
        }
    }

private:
    static void received(GDBusConnection* /*bus*/, const char* sender, const char* /*path*/,
                         const char* /*interface*/, const char* name, GVariant* arguments,
                         gpointer self) noexcept {
        static_cast<SignalPrinter*>(self)->print(
            {timeStamp(), sender, name, VariantRef{g_variant_ref(arguments)}});
    }

    /// A bus that does not admit this user keeps the signals back without a word; a call tells.
    static void appeared(GDBusConnection* bus, const char* /*name*/, const char* owner,
                         gpointer self) noexcept {
        g_dbus_connection_call(bus, owner, kObjectPath, "org.freedesktop.DBus.Peer", "Ping",
                               nullptr, nullptr, G_DBUS_CALL_FLAGS_NO_AUTO_START, G_MAXINT,
                               static_cast<SignalPrinter*>(self)->gone_.get(), answered, self);
    }

    static void answered(GObject* bus, GAsyncResult* result, gpointer self) noexcept {
        ErrorSlot error;
        const VariantRef reply{
            g_dbus_connection_call_finish(G_DBUS_CONNECTION(bus), result, error.out())};
        // Everything else is no reason to stop: the daemon may have left meanwhile. A cancelled
        // call means that the printer is gone.
        if (!error || !g_error_matches(&*error, G_DBUS_ERROR, G_DBUS_ERROR_ACCESS_DENIED)) {
            return;
        }
        static_cast<SignalPrinter*>(self)->stop(Failure::fromBus(*error));
    }

    static void busClosed(GDBusConnection* /*bus*/, gboolean /*vanished*/, GError* /*error*/,
                          gpointer self) noexcept {
        static_cast<SignalPrinter*>(self)->stop(
            {ExitStatus::NoDaemon, "The system bus ended. Start it, then try again."});
    }

    void print(const SignalEvent& event) {
        try {
            printLine(json_ ? signalAsJson(event) : signalAsText(event));
        } catch (const Failure& failure) {
            stop(failure);
        }
    }

    void stop(const Failure& failure) {
        failure_ = failure;
        g_main_loop_quit(loop_.get());
    }

    GDBusConnection* bus_;
    bool json_;
    MainLoopRef loop_;
    guint subscription_;
    ObjectRef<GCancellable> gone_{g_cancellable_new()};
    guint watch_;
    std::optional<Failure> failure_;
};

} // namespace

ExitStatus MonitorCommand::run(const std::vector<std::string>& words) {
    bool json = false;
    OptionParser parser{
        "monitor", "",
        "Prints every signal of the interface with its time, until interrupted. Does not "
        "start the daemon."};
    parser.setDescription("JSON objects have the members time, sender, signal, and\n"
                          "  connectionStatusChanged  status, words\n"
                          "  requestData, cancel      connection, request\n"
                          "  errorSignal              code, message, requests (a list of keys)\n");
    parser.addFlag("json", 'j', "Print one JSON object per line", json);
    if (!parser.parse(words).empty()) {
        throw Failure::usage("monitor takes no arguments. See 'orvexctl monitor --help'.");
    }
    Wait patient{std::chrono::seconds{0}};
    const ObjectRef<GDBusConnection> bus = connectToSystemBus(patient);
    SignalPrinter{bus.get(), json}.run();
    return ExitStatus::Success;
}

} // namespace orvexd::ctl
