// Shows that the thread sanitizer, with the suppressions that the tests run under, still reports a
// race on a GLib thread and an inversion of locks, and that locks and posts as the daemon uses them
// are no races to it. The first argument selects the case; the sanitizer makes the exit status 66
// when it has reported.

#include "support/MainLoopPost.h"
#include "support/Threads.h"

#include <chrono>
#include <dbus/dbus.h>
#include <glib.h>
#include <iostream>
#include <string_view>

namespace {

using namespace orvexd;

struct Shared {
    Mutex mutex;
    Mutex otherMutex;
    Condition condition;
    Lifetime lifetime;
    bool ready = false;
    int field = 0;
};

constexpr std::chrono::microseconds kPatience = std::chrono::seconds(30);

gint64 patienceFromNow() {
    return g_get_monotonic_time() + kPatience.count();
}

/// Runs `entry` on a GLib thread beside `here`.
bool runBeside(Shared& shared, GThreadFunc entry, void (*here)(Shared&)) {
    WorkerThread worker;
    if (!worker.start("HttpClient", entry, &shared)) {
        return false;
    }
    here(shared);
    return true;
}

/// Many accesses: the sanitizer may miss two that meet at the very same moment, as either looks for
/// the other before it is noted itself.
void countOften(Shared& shared) {
    volatile int& field = shared.field;
    for (int number = 0; number < 1000; ++number) {
        field = field + 1;
    }
}

gpointer countUnlocked(gpointer shared) {
    countOften(*static_cast<Shared*>(shared));
    return nullptr;
}

gpointer countLocked(gpointer data) {
    auto& shared = *static_cast<Shared*>(data);
    const Lock guard(shared.mutex);
    countOften(shared);
    return nullptr;
}

gpointer signalReady(gpointer data) {
    auto& shared = *static_cast<Shared*>(data);
    const Lock guard(shared.mutex);
    shared.field = 1;
    shared.ready = true;
    shared.condition.broadcast();
    return nullptr;
}

void awaitReady(Shared& shared) {
    const gint64 deadline = patienceFromNow();
    const Lock guard(shared.mutex);
    while (!shared.ready && shared.condition.waitUntil(shared.mutex, deadline)) {
    }
    ++shared.field;
}

gpointer postValue(gpointer data) {
    auto& shared = *static_cast<Shared*>(data);
    postToMainLoop(shared.lifetime, [&shared, value = 7] {
        shared.field += value;
        shared.ready = true;
    });
    return nullptr;
}

void iterateUntilReady(Shared& shared) {
    while (!shared.ready) {
        g_main_context_iteration(nullptr, TRUE);
    }
}

void lockInOneOrder(Shared& shared) {
    const Lock first(shared.mutex);
    const Lock second(shared.otherMutex);
}

void lockInTheOtherOrder(Shared& shared) {
    const Lock first(shared.otherMutex);
    const Lock second(shared.mutex);
}

bool run(std::string_view name) {
    Shared shared;
    if (name == "unlocked") {
        return runBeside(shared, countUnlocked, countOften);
    }
    if (name == "one-lock-missing") {
        return runBeside(shared, countLocked, countOften);
    }
    if (name == "locks-in-both-orders") {
        const tsan::LibraryFrame frame(dbus_connection_close); // no suppression names it
        lockInOneOrder(shared);
        lockInTheOtherOrder(shared);
        return true;
    }
    if (name == "locks-in-both-orders-by-a-suppressed-function") {
        {
            const tsan::LibraryFrame frame(dbus_bus_get);
            lockInOneOrder(shared);
        }
        lockInTheOtherOrder(shared);
        return true;
    }
    if (name == "locked") {
        return runBeside(shared, countLocked, [](Shared& here) { (void)countLocked(&here); });
    }
    if (name == "condition") {
        return runBeside(shared, signalReady, awaitReady);
    }
    if (name == "posted") {
        g_main_context_default(); // as in the daemon: there before any worker is
        return runBeside(shared, postValue, iterateUntilReady);
    }
    return false;
}

} // namespace

int main(int argc, char** argv) {
    if (argc == 2 && run(argv[1])) {
        return 0;
    }
    std::cerr << "no such case\n";
    return 1;
}
