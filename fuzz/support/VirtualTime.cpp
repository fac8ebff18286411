#include "support/VirtualTime.h"

#include <algorithm>
#include <cstdint>
#include <glib.h>
#include <limits>
#include <map>
#include <mutex>
#include <utility>

namespace orvexd::fuzz::virtual_time {

namespace {

struct Timer {
    GSourceFunc run;
    gpointer data;
    GDestroyNotify destroy;
};

using Due = std::pair<std::uint64_t, std::uint64_t>; // milliseconds, number

struct World {
    std::mutex mutex;
    std::map<Due, Timer> timers;
    std::uint64_t now = 0;
    std::uint64_t number = 0;
};

void release(const Timer& timer) {
    if (timer.destroy != nullptr) {
        timer.destroy(timer.data);
    }
}

World& world() {
    static World instance;
    return instance;
}

} // namespace

bool runOne() {
    Timer timer{};
    {
        World& w = world();
        const std::lock_guard guard(w.mutex);
        const auto first = w.timers.begin();
        if (first == w.timers.end() || first->first.first > w.now) {
            return false;
        }
        timer = first->second;
        w.timers.erase(first);
    }
    (void)timer.run(timer.data); // one-shot all of them
    release(timer);
    return true;
}

void runDue() {
    while (runOne()) {
    }
}

void pass(std::chrono::milliseconds interval) {
    const std::lock_guard guard(world().mutex);
    world().now += static_cast<std::uint64_t>(interval.count());
}

void clear() {
    std::map<Due, Timer> timers;
    {
        const std::lock_guard guard(world().mutex);
        timers.swap(world().timers);
    }
    for (const auto& [due, timer] : timers) {
        release(timer);
    }
}

} // namespace orvexd::fuzz::virtual_time

// GLib's calls by the names that the linker gives them
guint wrappedTimeoutAdd(gint priority, guint interval, GSourceFunc run, gpointer data,
                        GDestroyNotify destroy) __asm__("__wrap_g_timeout_add_full");

guint wrappedTimeoutAdd(gint /*priority*/, guint interval, GSourceFunc run, gpointer data,
                        GDestroyNotify destroy) {
    using namespace orvexd::fuzz::virtual_time;
    World& w = world();
    const std::lock_guard guard(w.mutex);
    w.timers[{w.now + interval, ++w.number}] = {run, data, destroy};
    return static_cast<guint>(w.number);
}

gboolean wrappedSourceRemove(guint number) __asm__("__wrap_g_source_remove");

gboolean wrappedSourceRemove(guint number) {
    using namespace orvexd::fuzz::virtual_time;
    Timer removed{};
    {
        World& w = world();
        const std::lock_guard guard(w.mutex);
        const auto position =
            std::find_if(w.timers.begin(), w.timers.end(),
                         [&](const auto& timer) { return timer.first.second == number; });
        if (position == w.timers.end()) {
            return FALSE;
        }
        removed = position->second;
        w.timers.erase(position);
    }
    release(removed);
    return TRUE;
}
