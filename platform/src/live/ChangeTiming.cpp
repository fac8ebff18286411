#include "live/ChangeTiming.h"

#include <algorithm>

namespace trilba::live {

void ChangeTiming::see(const Sight& sight, Time now) {
    const bool wasHeld = isLoss() && seen_.isHandover;
    const bool isNew = sight.identity != seen_.identity;
    // What ends a handover, well or badly, is a change of its own.
    const bool endsHandover = wasHeld && (sight.isConnected || !sight.isHandover);
    if (wasConnected_ && seen_.isConnected && !sight.isConnected) {
        lost_ = now;
    }
    seen_ = sight;
    if (!isNew && !endsHandover) {
        return;
    }
    if (!isChanged_ || endsHandover) {
        firstChange_ = now;
    }
    isChanged_ = true;
    lastChange_ = now;
}

std::optional<ChangeTiming::Time> ChangeTiming::due() const {
    if (!isChanged_) {
        return std::nullopt;
    }
    if (isLoss() && seen_.isHandover) {
        return lost_ + kHandover;
    }
    const Time latest = firstChange_ + kLongest;
    const bool mayWait = seen_.isIncomplete && seen_.isConnected;
    if (mayWait) {
        return latest;
    }
    return hasTold_ ? std::min<Time>(lastChange_ + kQuiet, latest) : lastChange_;
}

void ChangeTiming::tell() {
    hasTold_ = true;
    wasConnected_ = seen_.isConnected;
    isChanged_ = false;
}

} // namespace trilba::live
