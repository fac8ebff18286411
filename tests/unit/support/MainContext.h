#pragma once

#include <chrono>
#include <functional>
#include <glib.h>

namespace orvexd::test {

/// Dispatches what is ready on the default main context, until nothing is.
inline void dispatchReady() {
    while (g_main_context_iteration(nullptr, FALSE) != FALSE) {
    }
}

/// Iterates the default main context until `done` holds; gives up after ten seconds.
/// @return what `done` says in the end.
inline bool iterateUntil(const std::function<bool()>& done) {
    bool late = false;
    const guint watchdog = g_timeout_add(
        10000,
        [](gpointer flag) -> gboolean {
            *static_cast<bool*>(flag) = true;
            return G_SOURCE_CONTINUE;
        },
        &late);
    while (!done() && !late) {
        g_main_context_iteration(nullptr, TRUE);
    }
    g_source_remove(watchdog);
    return done();
}

/// Counts the warnings and criticals that GLib would print.
class GlibComplaints {
public:
    GlibComplaints() : before_(g_log_set_default_handler(count, &number_)) {}
    ~GlibComplaints() { g_log_set_default_handler(before_, nullptr); }
    GlibComplaints(const GlibComplaints&) = delete;
    GlibComplaints& operator=(const GlibComplaints&) = delete;
    GlibComplaints(GlibComplaints&&) = delete;
    GlibComplaints& operator=(GlibComplaints&&) = delete;

    int number() const noexcept { return number_; }

private:
    static void count(const gchar* /*domain*/, GLogLevelFlags /*level*/, const gchar* /*text*/,
                      gpointer number) noexcept {
        ++*static_cast<int*>(number);
    }

    int number_ = 0;
    GLogFunc before_;
};

} // namespace orvexd::test
