#pragma once

#include "support/Threads.h"

#include <concepts>
#include <glib.h>
#include <mutex>

namespace orvexd {

/// How the main loop wakes the worker that waits for client data, and asks it to give up. One
/// signal serves one exchange.
///
/// Lock order: `dataMutex` comes before an outgoing part's lock, because the worker takes outgoing
/// bytes while it holds the mutex.
class DataSignal {
public:
    /// Data has been stored for a request: wakes the waiting worker. A signal that comes while the
    /// worker does not wait is not lost, since the worker looks at the data before it waits. Main
    /// loop's thread, without an outgoing part's lock.
    void notifyData() {
        {
            const Lock guard(dataMutex_);
            dataArrived_ = true;
        }
        // With the mutex free: a worker that wakes up needs it first, and would sleep again until
        // this thread lets go of it, for every piece of data.
        dataCondition_.broadcast();
    }

    /// What a wait's deadline depends on has changed: lets the waiting worker look at it again. No
    /// data has arrived. The change was made before the call. Main loop's thread.
    void notifyDeadline() {
        {
            // The worker looks at the deadline and begins to wait in one hold of the mutex. So it
            // either sees the change or already waits for the broadcast.
            const Lock guard(dataMutex_);
        }
        dataCondition_.broadcast();
    }

    /// The running upload is to be aborted. A worker that waits for data is not woken: it notices
    /// when its wait ends. Main loop's thread; waits itself while the worker is in its callback.
    void requestCancel() {
        const Lock guard(dataMutex_);
        cancelRequested_ = true;
    }

    /// Holds `dataMutex` for one run of the read callback. Worker thread.
    class Reader {
    public:
        /// Takes the mutex; the end of the scope gives it back.
        explicit Reader(DataSignal& signal) : signal_(signal), guard_(signal.dataMutex_) {}

        /// Whether the upload is to be aborted.
        [[nodiscard]] bool isCancelRequested() const noexcept { return signal_.cancelRequested_; }

        /// Waits for data with the mutex released. Data that came before the call does not count:
        /// the caller has looked for it under the mutex.
        /// @param deadline microseconds on g_get_monotonic_time's clock.
        /// @return false when no data arrived until then.
        [[nodiscard]] bool waitForData(gint64 deadline) {
            return waitForData([deadline] { return deadline; });
        }

        /// As above, with a deadline that may change during the wait.
        /// @param deadline gives it, and is called again after each wake-up.
        template <std::invocable Deadline> [[nodiscard]] bool waitForData(Deadline deadline) {
            signal_.dataArrived_ = false;
            while (signal_.dataCondition_.waitUntil(signal_.dataMutex_, deadline())) {
                if (signal_.dataArrived_) {
                    return true;
                }
            }
            return signal_.dataArrived_;
        }

    private:
        DataSignal& signal_;
        Lock guard_;
    };

private:
    Mutex dataMutex_;
    Condition dataCondition_;
    bool dataArrived_ = false;     // guarded by dataMutex_
    bool cancelRequested_ = false; // guarded by dataMutex_
};

} // namespace orvexd
