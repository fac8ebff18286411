#pragma once

#include <chrono>

/// Replaces GLib's timers at link time (--wrap=g_timeout_add_full): what is posted to the main loop
/// waits here until a target runs it, in the order of time and then of posting. Fifty milliseconds
/// pass when the target says so.
namespace orvexd::fuzz::virtual_time {

/// Runs what is due, and what that posts for now. Main thread.
void runDue();

/// Runs the first thing that is due. @return false when there was none.
bool runOne();

/// Lets time pass, without running anything.
void pass(std::chrono::milliseconds interval);

/// Frees what has not run.
void clear();

} // namespace orvexd::fuzz::virtual_time
