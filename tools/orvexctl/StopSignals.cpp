#include "StopSignals.h"

#include <csignal>
#include <glib-unix.h>

namespace orvexd::ctl {

template <int Signal> gboolean StopSignals::deliver(gpointer self) noexcept {
    static_cast<StopSignals*>(self)->handler_(Signal);
    return G_SOURCE_CONTINUE;
}

StopSignals::StopSignals(std::function<void(int signal)> handler)
    : handler_{std::move(handler)},
      sources_{g_unix_signal_add(SIGINT, deliver<SIGINT>, this),
               g_unix_signal_add(SIGTERM, deliver<SIGTERM>, this),
               g_unix_signal_add(SIGHUP, deliver<SIGHUP>, this)} {}

StopSignals::~StopSignals() {
    for (const guint source : sources_)
        g_source_remove(source);
}

} // namespace orvexd::ctl
