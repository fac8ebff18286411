#pragma once

#include <glib.h>

namespace orvexd::test {

/// Counts the warnings and criticals that GLib would print.
class GlibComplaints {
public:
    GlibComplaints() : before_(g_log_set_default_handler(count, &number_)) {}
    ~GlibComplaints() { g_log_set_default_handler(before_, nullptr); }
    GlibComplaints(const GlibComplaints&) = delete;
    GlibComplaints& operator=(const GlibComplaints&) = delete;

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
