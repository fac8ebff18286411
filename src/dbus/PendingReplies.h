#pragma once

#include "support/BusHandles.h"

#include <map>
#include <string>

namespace orvexd {

/// The getData calls that are held until their request has a chunk, at most one for each request
/// key. A call that leaves without an answer ends by its client's own time-out. Main loop's thread.
///
/// What is kept of a call is the answer that it is going to get, still empty. The call itself may
/// carry any further arguments, file descriptors among them, and libdbus stops reading from the bus
/// when the messages that are not released yet exceed its limits.
class PendingReplies {
public:
    /// Holds `call`; one that is held under `key` already is given up. Without memory for an answer
    /// none is held.
    void hold(const std::string& key, DBusMessage& call) {
        BusMessage reply(dbus_message_new_method_return(&call));
        if (reply) {
            replies_.insert_or_assign(key, std::move(reply));
        } else {
            drop(key);
        }
    }

    /// Removes the call held under `key` and returns its empty answer; null when there is none.
    BusMessage take(const std::string& key) {
        const auto held = replies_.find(key);
        if (held == replies_.end()) {
            return nullptr;
        }
        BusMessage reply = std::move(held->second);
        replies_.erase(held);
        return reply;
    }

    /// Gives up the call held under `key`, if any.
    void drop(const std::string& key) { replies_.erase(key); }

    /// Gives up all calls.
    void clear() { replies_.clear(); }

private:
    std::map<std::string, BusMessage> replies_;
};

} // namespace orvexd
