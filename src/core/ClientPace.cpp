#include "core/ClientPace.h"

namespace orvexd {

void ClientPace::stored(std::size_t bytes) noexcept {
    waiting_ += bytes;
    storedSinceRest_ += bytes;
}

void ClientPace::taken(std::size_t bytes) noexcept {
    waiting_ -= bytes;
    if (resting_ && waiting_ <= lowWater()) {
        const Lock guard(mutex_);
        drained_.broadcast();
    }
}

ClientPace::Rest ClientPace::rest() noexcept {
    if (waiting_ < highWater() || storedSinceRest_ < highWater() - lowWater()) {
        return Rest::NotNeeded;
    }
    storedSinceRest_ = 0;
    const gint64 deadline = g_get_monotonic_time() + longestRest_.count();
    bool inTime = true;
    const Lock guard(mutex_);
    resting_ = true;
    while (inTime && waiting_ > lowWater()) {
        inTime = drained_.waitUntil(mutex_, deadline);
    }
    resting_ = false;
    return inTime ? Rest::ClientFetched : Rest::TimeIsUp;
}

} // namespace orvexd
