#pragma once

#include "support/BusHandles.h"
#include "support/Statistics.h"

#include <cstdint>
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

    /// Gives up the call held for the request, if any.
    void drop(std::uint32_t connectionId, std::uint32_t requestId) {
        replies_.erase({connectionId, requestId});
    }

    /// Gives up all calls without an answer.
    void clear() { replies_.clear(); }

private:
    struct Held {
        BusMessage reply;
        [[no_unique_address]] Counted<Statistic::HeldReplies> counted = {};
    };

    std::map<std::pair<std::uint32_t, std::uint32_t>, Held> replies_;
};

} // namespace orvexd
