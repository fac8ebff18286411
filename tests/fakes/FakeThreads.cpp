#include "fakes/FakeThreads.h"

#include "fakes/Gate.h"

#include <functional>
#include <glib.h>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>

namespace {

using orvexd::test::Gate;

struct World {
    std::mutex mutex;
    std::map<GThread*, std::shared_ptr<Gate>> gates; // of the threads that are held
    bool fail = false;
    bool hold = false;
    int started = 0;
    int joined = 0;
    int waits = 0;
    std::string name;
};

World& world() {
    static World instance;
    return instance;
}

std::function<void()>& actionBeforeWait() {
    thread_local std::function<void()> action;
    return action;
}

gint64& newestDeadline() {
    thread_local gint64 deadline = 0;
    return deadline;
}

std::function<bool(std::int64_t)>& replacedWait() {
    thread_local std::function<bool(std::int64_t)> wait;
    return wait;
}

int& yieldCount() {
    thread_local int count = 0;
    return count;
}

/// What a held thread runs.
struct HeldEntry {
    GThreadFunc entry;
    gpointer argument;
    std::shared_ptr<Gate> gate;
};

gpointer runHeld(gpointer data) {
    const std::unique_ptr<HeldEntry> held(static_cast<HeldEntry*>(data));
    (void)held->gate->await(); // a thread that nobody joins starts late rather than never
    return held->entry(held->argument);
}

} // namespace

// GLib's calls by the names that the linker gives them
GThread* realTryNew(const gchar* name, GThreadFunc entry, gpointer argument,
                    GError** error) __asm__("__real_g_thread_try_new");
gpointer realJoin(GThread* thread) __asm__("__real_g_thread_join");
gboolean realWaitUntil(GCond* condition, GMutex* mutex,
                       gint64 deadline) __asm__("__real_g_cond_wait_until");
void realYield() __asm__("__real_g_thread_yield");
GThread* wrappedTryNew(const gchar* name, GThreadFunc entry, gpointer argument,
                       GError** error) __asm__("__wrap_g_thread_try_new");
gpointer wrappedJoin(GThread* thread) __asm__("__wrap_g_thread_join");
gboolean wrappedWaitUntil(GCond* condition, GMutex* mutex,
                          gint64 deadline) __asm__("__wrap_g_cond_wait_until");
void wrappedYield() __asm__("__wrap_g_thread_yield");

GThread* wrappedTryNew(const gchar* name, GThreadFunc entry, gpointer argument, GError** error) {
    World& w = world();
    const std::lock_guard guard(w.mutex);
    if (w.fail) {
        return nullptr;
    }
    ++w.started;
    w.name = name;
    if (!w.hold) {
        return realTryNew(name, entry, argument, error);
    }
    auto gate = std::make_shared<Gate>();
    auto held = std::make_unique<HeldEntry>(HeldEntry{entry, argument, gate});
    GThread* thread = realTryNew(name, runHeld, held.get(), error);
    if (thread != nullptr) {
        (void)held.release(); // the thread owns it
        w.gates[thread] = std::move(gate);
    }
    return thread;
}

gpointer wrappedJoin(GThread* thread) {
    std::shared_ptr<Gate> gate;
    {
        World& w = world();
        const std::lock_guard guard(w.mutex);
        ++w.joined;
        if (const auto held = w.gates.extract(thread)) {
            gate = held.mapped();
        }
    }
    if (gate) { // without the lock, which a thread takes that is just beginning to wait at the gate
        gate->open();
    }
    return realJoin(thread);
}

gboolean wrappedWaitUntil(GCond* condition, GMutex* mutex, gint64 deadline) {
    newestDeadline() = deadline;
    const auto action = std::exchange(actionBeforeWait(), nullptr);
    {
        const std::lock_guard guard(world().mutex);
        ++world().waits;
    }
    if (action) {
        action();
    }
    if (!replacedWait()) {
        return realWaitUntil(condition, mutex, deadline);
    }
    g_mutex_unlock(mutex);
    const bool inTime = replacedWait()(deadline);
    g_mutex_lock(mutex);
    return inTime ? TRUE : FALSE;
}

void wrappedYield() {
    ++yieldCount();
    realYield();
}

namespace fake_threads {

void reset() {
    const std::lock_guard guard(world().mutex);
    world().fail = false;
    world().hold = false;
    world().started = 0;
    world().joined = 0;
    world().waits = 0;
    world().name.clear();
}

void failStart(bool fail) {
    const std::lock_guard guard(world().mutex);
    world().fail = fail;
}

void holdUntilJoined(bool hold) {
    const std::lock_guard guard(world().mutex);
    world().hold = hold;
}

void beforeNextWait(std::function<void()> action) {
    actionBeforeWait() = std::move(action);
}

int waits() {
    const std::lock_guard guard(world().mutex);
    return world().waits;
}

gint64 lastDeadline() {
    return newestDeadline();
}

void replaceWaits(std::function<bool(std::int64_t)> wait) {
    replacedWait() = std::move(wait);
}

int yieldsOfThisThread() {
    return yieldCount();
}

int started() {
    const std::lock_guard guard(world().mutex);
    return world().started;
}

int joined() {
    const std::lock_guard guard(world().mutex);
    return world().joined;
}

std::string lastName() {
    const std::lock_guard guard(world().mutex);
    return world().name;
}

} // namespace fake_threads
