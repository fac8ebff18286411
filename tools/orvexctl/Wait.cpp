#include "Wait.h"

namespace orvexd::ctl {

Wait::Wait(std::chrono::seconds limit) : limit_{limit} {
    if (limit_.count() > 0) {
        timer_.once(limit_, [this] {
            isOver_ = true;
            end();
        });
    }
}

/// What was waited for is known only until the operation is cancelled.
void Wait::end() {
    if (what_) {
        giveUp(overdue(what_(), limit_));
    }
}

void Wait::finished(GObject* /*source*/, GAsyncResult* result, gpointer self) noexcept {
    auto& wait = *static_cast<Wait*>(self);
    wait.result_.reset(G_ASYNC_RESULT(g_object_ref(result)));
    g_main_loop_quit(wait.loop_.get());
}

GAsyncResult* Wait::run(const std::function<Awaited()>& what) {
    what_ = what;
    if (isOver_) {
        end();
    }
    g_main_loop_run(loop_.get());
    what_ = nullptr;
    if (failure_) {
        throw Failure{*failure_};
    }
    return result_.get();
}

void Wait::giveUp(const Failure& why) {
    failure_ = why;
    g_cancellable_cancel(stop_.get());
}

} // namespace orvexd::ctl
