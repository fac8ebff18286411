#pragma once

#include "support/Threads.h"

#include <glib.h>
#include <mutex>

namespace orvexd {

/// How the main loop wakes the worker that waits for client data, and asks it to give up.
///
/// `dataMutex` comes before a request's own lock: the worker takes outgoing bytes while it holds
/// it.
class DataSignal {
public:
    /// Data has been stored for a request: wakes the waiting worker. Main loop's thread.
    void notifyData() {
        {
            const Lock guard(dataMutex_);
            dataArrived_ = true;
        }
        // With the mutex free: a worker that wakes up needs it first, and would sleep again until
        // this thread lets go of it, for every piece of data.
        dataCondition_.broadcast();
    }

    /// The running upload is to be aborted. A worker that waits for data is not woken; it sees the
    /// request when its wait ends. Main loop's thread.
    void requestCancel() {
        const Lock guard(dataMutex_);
        cancelRequested_ = true;
    }

    /// Holds `dataMutex` for one run of the read callback. Worker thread.
    class Reader {
    public:
        explicit Reader(DataSignal& signal) : signal_(signal), guard_(signal.dataMutex_) {}

        [[nodiscard]] bool isCancelRequested() const noexcept { return signal_.cancelRequested_; }

        /// Waits for data with the mutex released.
        /// @param deadline microseconds on g_get_monotonic_time's clock.
        /// @return false when no data arrived until then.
        bool waitForData(gint64 deadline) {
            signal_.dataArrived_ = false;
            while (signal_.dataCondition_.waitUntil(signal_.dataMutex_, deadline)) {
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
