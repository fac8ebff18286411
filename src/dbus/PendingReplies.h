#pragma once

#include "dbus/BusLink.h"
#include "support/BusHandles.h"
#include "support/MainLoopPost.h"
#include "support/Statistics.h"

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <utility>

namespace orvexd {

/// The getData calls that are held until their request has a chunk, at most one for each request. A
/// call that leaves without an answer ends by its client's own time-out. Main loop's thread.
///
/// The answer that a call is going to get is kept, still empty, and not the call. A call may carry
/// any further arguments, file descriptors among them, and libdbus stops reading from the bus when
/// the messages that are not released yet exceed its limits.
class PendingReplies {
public:
    /// Holds `call`; one that is held for the request already is given up. Without memory for an
    /// answer none is held.
    void hold(std::uint32_t connectionId, std::uint32_t requestId, DBusMessage& call) {
        BusMessage reply(dbus_message_new_method_return(&call));
        if (reply) {
            replies_.insert_or_assign({connectionId, requestId}, Held{std::move(reply)});
        } else {
            drop(connectionId, requestId);
        }
    }

    /// Removes the call held for the request and returns its empty answer; null when there is none.
    [[nodiscard]] BusMessage take(std::uint32_t connectionId, std::uint32_t requestId) {
        const auto held = replies_.find({connectionId, requestId});
        if (held == replies_.end()) {
            return nullptr;
        }
        BusMessage reply = std::move(held->second.reply);
        replies_.erase(held);
        return reply;
    }

    /// Gives up the call held for the request, if any: its client never gets an answer to it.
    void drop(std::uint32_t connectionId, std::uint32_t requestId) {
        replies_.erase({connectionId, requestId});
    }

    /// Gives up all calls without an answer, as the daemon does when it ends.
    void clear() { replies_.clear(); }

private:
    /// The answer to a call, without its arguments.
    struct Held {
        BusMessage reply;
        [[no_unique_address]] Counted<Statistic::HeldReplies> counted = {};
    };

    std::map<std::pair<std::uint32_t, std::uint32_t>, Held> replies_; // by connection and request
};

/// The replies to sendData that are held while too much of their request waits for the transfer, so
/// that a client which waits for its replies gives no more than the server takes. None is held for
/// longer than 5 s: the server has 60 s, and a bus call 25 s. Main loop's thread.
class HeldSends {
public:
    /// How long a reply is held at the most.
    static constexpr std::chrono::milliseconds kLongestHold{5000};

    /// The most replies that are held. A client that does not wait for its replies could have any
    /// number under way, and holding them would not slow it down.
    static constexpr std::size_t kMostReplies = 1024;

    /// Holds a complete reply, or sends it when too many are held. Several may be held for one
    /// request, of a client that does not wait for them; they go out in the order of their calls.
    /// @throws std::string as `BusLink::sendOrThrow`.
    void hold(std::uint32_t connectionId, std::uint32_t requestId, BusMessage reply) {
        if (held_.size() >= kMostReplies) {
            BusLink::sendOrThrow(std::move(reply));
            return;
        }
        held_.push_back({{connectionId, requestId},
                         g_get_monotonic_time() + kMicroseconds * kLongestHold.count(),
                         std::move(reply)});
        if (!timer_.isPending()) {
            startTimer();
        }
    }

    /// Sends the replies that are held for the request.
    /// @throws std::string as `BusLink::sendOrThrow`.
    void release(std::uint32_t connectionId, std::uint32_t requestId) {
        const Ids ids{connectionId, requestId};
        for (auto entry = held_.begin(); entry != held_.end();) {
            if (entry->ids != ids) {
                ++entry;
                continue;
            }
            BusMessage reply = std::move(entry->reply);
            entry = held_.erase(entry);
            BusLink::sendOrThrow(std::move(reply));
        }
    }

    /// Sends all, oldest first.
    /// @throws std::string as `BusLink::sendOrThrow`.
    void releaseAll() {
        timer_.cancel();
        for (Entry& entry : std::exchange(held_, {})) {
            BusLink::sendOrThrow(std::move(entry.reply));
        }
    }

private:
    static constexpr gint64 kMicroseconds = 1000; // of a millisecond

    using Ids = std::pair<std::uint32_t, std::uint32_t>; // of connection and request
    /// A reply that is held.
    struct Entry {
        Ids ids;
        gint64 deadline; // on g_get_monotonic_time's clock
        BusMessage reply;
    };

    /// All are held for the same time, so the oldest is due first.
    void startTimer() {
        const gint64 due = held_.front().deadline;
        const gint64 left = std::max<gint64>(0, due - g_get_monotonic_time());
        timer_.start(std::chrono::milliseconds(left / kMicroseconds + 1),
                     [this, due] { sendUntil(due); });
    }

    /// Sends what is due by then, and starts the timer for the next.
    void sendUntil(gint64 due) {
        while (!held_.empty() && held_.front().deadline <= due) {
            BusMessage reply = std::move(held_.front().reply);
            held_.pop_front();
            BusLink::sendOrThrow(std::move(reply));
        }
        if (!held_.empty()) {
            startTimer();
        }
    }

    std::deque<Entry> held_; // oldest first
    MainLoopTimer timer_;
};

} // namespace orvexd
