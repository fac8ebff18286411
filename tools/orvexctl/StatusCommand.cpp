#include "StatusCommand.h"

#include "Bus.h"
#include "ConnectionStatus.h"
#include "Failure.h"
#include "OptionParser.h"
#include "Output.h"
#include "StopSignals.h"

#include <optional>
#include <orvexclient.h>

namespace orvexd::ctl {
namespace {

void print(std::uint32_t status) {
    printLine(connectionStatusWords(status) + " (" + std::to_string(status) + ")");
}

/// Asks the daemon, which is started if need be.
std::uint32_t query(OrvexClient* client) {
    ErrorSlot error;
    OrvexStatus status{};
    if (orvex_client_query_status(client, &status, nullptr, error.out()) == FALSE) {
        throw Failure::fromLibrary(*error);
    }
    return status;
}

/// Prints the status now and after each change, until a signal ends it.
class Watch {
public:
    explicit Watch(OrvexClient* client) : client_{client} {
        g_signal_connect(client_, "notify::status", G_CALLBACK(changed), this);
        g_signal_connect(client_, "notify::running", G_CALLBACK(gone), this);
    }
    ~Watch() { g_signal_handlers_disconnect_by_data(client_, this); }
    Watch(const Watch&) = delete;
    Watch& operator=(const Watch&) = delete;

    /// @throws Failure
    void run() {
        const StopSignals signals{[this](int /*signal*/) { g_main_loop_quit(loop_.get()); }};
        show(query(client_));
        if (!failure_) {
            g_main_loop_run(loop_.get());
        }
        if (failure_) {
            throw Failure{*failure_};
        }
    }

private:
    static void changed(OrvexClient* client, GParamSpec* /*property*/, gpointer self) noexcept {
        static_cast<Watch*>(self)->show(orvex_client_get_status(client));
    }

    static void gone(OrvexClient* client, GParamSpec* /*property*/, gpointer self) noexcept {
        if (orvex_client_get_running(client) == FALSE) {
            static_cast<Watch*>(self)->stop(Failure::daemonGone());
        }
    }

    void show(std::uint32_t status) {
        // A daemon that has left has no status.
        if (failure_ || last_ == status || orvex_client_get_running(client_) == FALSE) {
            return;
        }
        last_ = status;
        try {
            print(status);
        } catch (const Failure& why) {
            stop(why);
        }
    }

    void stop(const Failure& why) {
        failure_ = why;
        g_main_loop_quit(loop_.get());
    }

    OrvexClient* client_;
    MainLoopRef loop_{g_main_loop_new(nullptr, FALSE)};
    std::optional<std::uint32_t> last_;
    std::optional<Failure> failure_;
};

} // namespace

ExitStatus StatusCommand::run(const std::vector<std::string>& words) {
    bool watching = false;
    OptionParser parser{
        "status", "", "Prints the state of the device's network connection as the daemon sees it."};
    parser.setDescription("Values:\n"
                          "  0  not connected\n"
                          "  1  connected\n"
                          "  3  connected, kind 1\n"
                          "  5  connected, restricted\n");
    parser.addFlag("watch", 'w', "Go on with one line per change, until interrupted", watching);
    if (!parser.parse(words).empty()) {
        throw Failure::usage("status takes no arguments. See 'orvexctl status --help'.");
    }
    const ObjectRef<OrvexClient> client = makeClient();
    if (watching) {
        Watch{client.get()}.run();
    } else {
        print(query(client.get()));
    }
    return ExitStatus::Success;
}

} // namespace orvexd::ctl
