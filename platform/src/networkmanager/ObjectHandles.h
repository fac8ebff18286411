#pragma once

#include "Handles.h"

#include <functional>
#include <gio/gio.h>
#include <memory>
#include <string>
#include <utility>

namespace trilba::live {

/// Before a service that did not answer is asked again.
inline constexpr gint64 kPauseBeforeAskingAgain = gint64{10} * G_USEC_PER_SEC;

/// The text; nothing for null.
inline std::string textOf(const char* text) {
    return text == nullptr ? "" : text;
}

/// A reference to a GObject.
template <typename T> using Object = std::unique_ptr<T, FreeWith<g_object_unref>>;

/// Takes a reference of its own.
template <typename T> Object<T> shared(T* object) {
    return Object<T>(object == nullptr ? nullptr : static_cast<T*>(g_object_ref(object)));
}

/// A signal's handler for as long as this lives. It holds the object, too.
class SignalHandler {
public:
    SignalHandler(gpointer object, const char* signal, GCallback handler, gpointer data)
        : object_(shared(static_cast<GObject*>(object))),
          id_(g_signal_connect(object, signal, handler, data)) {}
    SignalHandler(const SignalHandler&) = delete;
    SignalHandler& operator=(const SignalHandler&) = delete;
    SignalHandler(SignalHandler&& other) noexcept
        : object_(std::move(other.object_)), id_(std::exchange(other.id_, 0)) {}
    SignalHandler& operator=(SignalHandler&& other) noexcept {
        std::swap(object_, other.object_);
        std::swap(id_, other.id_);
        return *this;
    }
    ~SignalHandler() {
        if (object_) {
            g_signal_handler_disconnect(object_.get(), id_);
        }
    }

private:
    Object<GObject> object_;
    gulong id_;
};

/// The answers that one object waits for. When it goes, they are cancelled, and none of them
/// reaches it any more.
class PendingAnswers {
public:
    using Handler = std::function<void(GObject* source, GAsyncResult* result)>;

    PendingAnswers() : cancellable_(g_cancellable_new()) {}
    PendingAnswers(const PendingAnswers&) = delete;
    PendingAnswers& operator=(const PendingAnswers&) = delete;
    ~PendingAnswers() { g_cancellable_cancel(cancellable_.get()); }

    [[nodiscard]] GCancellable* cancellable() const { return cancellable_.get(); }

    /// For `user_data` of one asynchronous call whose callback is `arrive`.
    gpointer expect(Handler handler) {
        return std::make_unique<Expected>(Expected{alive_, std::move(handler)}).release();
    }

    static void arrive(GObject* source, GAsyncResult* result, gpointer data) noexcept {
        const std::unique_ptr<Expected> expected(static_cast<Expected*>(data));
        if (!expected->alive.expired()) {
            expected->handler(source, result);
        }
    }

private:
    struct Expected {
        std::weak_ptr<const bool> alive;
        Handler handler;
    };

    Object<GCancellable> cancellable_;
    std::shared_ptr<const bool> alive_ = std::make_shared<const bool>(true);
};

/// A timer of the default main context that runs once.
class OneShot {
public:
    explicit OneShot(std::function<void()> run) : run_(std::move(run)) {}
    OneShot(const OneShot&) = delete;
    OneShot& operator=(const OneShot&) = delete;
    ~OneShot() = default;

    /// Runs at this time of the monotonic clock, in µs; an earlier choice is forgotten.
    void runAt(gint64 time) {
        if (!source_) {
            source_.reset(g_timeout_source_new(0));
            g_source_set_callback(source_.get(), &OneShot::onTime, this, nullptr);
            g_source_attach(source_.get(), nullptr);
        }
        g_source_set_ready_time(source_.get(), time);
    }

    void stop() { source_.reset(); }

private:
    static gboolean onTime(gpointer data) noexcept {
        auto& self = *static_cast<OneShot*>(data);
        const Source ended = std::move(self.source_);
        const auto run = self.run_; // it may destroy the timer
        run();
        return G_SOURCE_REMOVE;
    }

    std::function<void()> run_;
    Source source_;
};

} // namespace trilba::live
