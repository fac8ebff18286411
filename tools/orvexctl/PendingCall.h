#pragma once

#include "Failure.h"
#include "GioHandles.h"

#include <functional>
#include <memory>

namespace orvexd::ctl {

/// Carries a C++ handler through one asynchronous GIO operation. The operation owns it: GIO calls
/// finished() exactly once for each operation that was started, and that frees it.
template <typename Result> class PendingCall {
public:
    using Handler = std::function<void(Outcome<Result>)>;
    /// Reads the outcome with the operation's own ..._finish function.
    using Finish = std::function<Outcome<Result>(GObject* source, GAsyncResult* result)>;

    /// For the user data of the operation that is started on the same line.
    static gpointer start(Handler handler, Finish finish) {
        return std::unique_ptr<PendingCall>{new PendingCall{std::move(handler), std::move(finish)}}
            .release();
    }

    /// For the callback of the same operation.
    static void finished(GObject* source, GAsyncResult* result, gpointer data) noexcept {
        const std::unique_ptr<PendingCall> call{static_cast<PendingCall*>(data)};
        call->handler_(call->finish_(source, result));
    }

private:
    PendingCall(Handler handler, Finish finish)
        : handler_{std::move(handler)}, finish_{std::move(finish)} {}

    Handler handler_;
    Finish finish_;
};

} // namespace orvexd::ctl
