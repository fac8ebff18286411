#pragma once

#include "support/Threads.h"

#include <chrono>
#include <glib.h>

namespace orvexd::test {

/// How long a test waits for something that must happen; long enough for a sanitizer build on a
/// busy machine.
inline constexpr std::chrono::seconds kPatience(30);

/// A signal between the threads of a test: once open it stays open.
class Gate {
public:
    void open() {
        const Lock guard(mutex_);
        open_ = true;
        condition_.broadcast();
    }

    bool isOpen() {
        const Lock guard(mutex_);
        return open_;
    }

    /// Blocks until the gate is open. @return false when the patience is exhausted.
    bool await() {
        const gint64 deadline =
            g_get_monotonic_time() + std::chrono::microseconds(kPatience).count();
        const Lock guard(mutex_);
        while (!open_) {
            if (!condition_.waitUntil(mutex_, deadline)) {
                return open_;
            }
        }
        return true;
    }

private:
    Mutex mutex_;
    Condition condition_;
    bool open_ = false; // guarded by mutex_
};

} // namespace orvexd::test
