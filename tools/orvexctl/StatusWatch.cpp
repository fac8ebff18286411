#include "StatusWatch.h"

#include "StopSignals.h"

namespace orvexd::ctl {
namespace {

/// Nothing tells that the bus has gone while there is no daemon.
constexpr std::chrono::milliseconds kLookForBus{500};

} // namespace

StatusWatch::StatusWatch(OrvexClient* client, Show show) : client_{client}, show_{std::move(show)} {
    g_signal_connect(client_, "notify::status", G_CALLBACK(changed), this);
    g_signal_connect(client_, "notify::running", G_CALLBACK(changed), this);
}

StatusWatch::~StatusWatch() {
    g_cancellable_cancel(end_.get());
    g_signal_handlers_disconnect_by_data(client_, this);
}

void StatusWatch::run(std::uint32_t status) {
    const StopSignals signals{[this](int /*signal*/) { g_main_loop_quit(loop_.get()); }};
    last_ = status;
    look_.every(kLookForBus, [this] { lookForBus(); });
    show_(status);
    update(); // it may have changed since
    if (!failure_) {
        g_main_loop_run(loop_.get());
    }
    if (failure_) {
        throw Failure{*failure_};
    }
}

void StatusWatch::changed(OrvexClient* /*client*/, GParamSpec* /*property*/,
                          gpointer self) noexcept {
    static_cast<StatusWatch*>(self)->update();
}

void StatusWatch::update() {
    if (orvex_client_get_running(client_) == FALSE) {
        lookForBus();
        return tell(std::nullopt);
    }
    if (last_) {
        return tell(orvex_client_get_status(client_));
    }
    // A daemon that has come back, of which the client may not know more than that yet.
    orvex_client_query_status_async(client_, end_.get(), told, this);
}

void StatusWatch::told(GObject* client, GAsyncResult* result, gpointer self) noexcept {
    ErrorSlot error;
    OrvexStatus status{};
    const bool answered = orvex_client_query_status_finish(ORVEX_CLIENT(client), result, &status,
                                                           error.out()) != FALSE;
    // A daemon that has gone again meanwhile is no failure. A cancelled question means that the
    // watch is gone.
    if (answered) {
        static_cast<StatusWatch*>(self)->tell(status);
    }
}

void StatusWatch::tell(std::optional<std::uint32_t> status) {
    if (failure_ || last_ == status) {
        return;
    }
    last_ = status;
    try {
        show_(status);
    } catch (const Failure& why) {
        stop(why);
    }
}

void StatusWatch::lookForBus() {
    if (g_dbus_connection_is_closed(orvex_client_get_connection(client_)) != FALSE) {
        stop({ExitStatus::NoDaemon, "The system bus ended. Start it, then try again."});
    }
}

void StatusWatch::stop(const Failure& why) {
    failure_ = why;
    g_main_loop_quit(loop_.get());
}

} // namespace orvexd::ctl
