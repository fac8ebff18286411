#include "StopSignals.h"

#include <csignal>
#include <glib-unix.h>

namespace orvexd::ctl {

namespace {

gboolean ignore(gpointer /*unused*/) noexcept {
    return G_SOURCE_CONTINUE;
}

} // namespace

template <int Signal> gboolean StopSignals::deliver(gpointer self) noexcept {
    auto* signals = static_cast<StopSignals*>(self);
    signals->delivered_ = true;
    signals->handler_(Signal);
    return G_SOURCE_CONTINUE;
}

StopSignals::StopSignals(std::function<void(int signal)> handler)
    : handler_{std::move(handler)},
      sources_{g_unix_signal_add(SIGINT, deliver<SIGINT>, this),
               g_unix_signal_add(SIGTERM, deliver<SIGTERM>, this),
               g_unix_signal_add(SIGHUP, deliver<SIGHUP>, this)} {}

StopSignals::~StopSignals() {
    if (delivered_) {
        // timeout(1) sends its signal twice, to the process and to its group. GLib would give the
        // default action back with the last source of a signal.
        for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
            g_unix_signal_add(signal, ignore, nullptr);
        }
    }
    for (const guint source : sources_) {
        g_source_remove(source);
    }
}

} // namespace orvexd::ctl
