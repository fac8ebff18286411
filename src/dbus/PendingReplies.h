#pragma once

#include "support/BusHandles.h"

#include <map>
#include <string>

namespace orvexd {

/// The getData calls that are held until their request has a chunk, at most one for each request
/// key. A call that leaves without an answer ends by its client's own time-out. Main loop's thread.
class PendingReplies {
public:
    /// Keeps a reference on `call`; a call that is held under `key` already is given up.
    void hold(const std::string& key, DBusMessage& call) {
        calls_.insert_or_assign(key, BusMessage(dbus_message_ref(&call)));
    }

    /// Removes and returns the call held under `key`; null when there is none.
    BusMessage take(const std::string& key) {
        const auto held = calls_.find(key);
        if (held == calls_.end()) {
            return nullptr;
        }
        BusMessage call = std::move(held->second);
        calls_.erase(held);
        return call;
    }

    /// Gives up the call held under `key`, if any.
    void drop(const std::string& key) { calls_.erase(key); }

    /// Gives up all calls.
    void clear() { calls_.clear(); }

private:
    std::map<std::string, BusMessage> calls_;
};

} // namespace orvexd
