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
    if (waiting_ < chunk_) {
        return Rest::NotNeeded;
    }
    if (waiting_ < highWater()) {
        // Client, bus and main loop carry chunks in turns. A worker that keeps its processor while
        // one of them waits for it holds up all three, for as long as a time slice lasts.
        g_thread_yield();
        return Rest::Yielded;
    }
    if (storedSinceRest_ < highWater() - lowWater()) {
        return Rest::NotNeeded;
    }
    return restUntilFetched();
}

ClientPace::Rest ClientPace::restUntilFetched() noexcept {
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
