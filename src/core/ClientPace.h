#pragma once

#include "support/Locks.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstddef>

namespace orvexd {

/// Keeps a request's answer from running far ahead of a client that fetches it.
///
/// A server can send faster than a message bus carries. Left alone, the worker would then pile up
/// most of a long answer in fresh memory, and take the processors from the bus and all its clients
/// while it does. So it lets other threads go first once there is a chunk to fetch, and rests when
/// much is stored: the socket's buffer fills, and TCP slows the server down.
///
/// A rest is short, and the next one comes half the high water of bytes later at the earliest. A
/// slow client, or one that fetches nothing, still gets its answer stored at 50 MB a second: no
/// request holds up the others of its exchange for long, and transfers stay as far from their
/// time-out as they were.
class ClientPace {
public:
    /// What the worker did before it goes on, and what ended a rest.
    enum class Rest { NotNeeded, Yielded, ClientFetched, TimeIsUp };

    /// High water for chunks of up to half of it, bytes.
    static constexpr std::size_t kLeastHighWater = std::size_t{1024} * 1024;

    /// What a rest lasts at the most.
    static constexpr std::chrono::microseconds kLongestRest{10'000};

    /// @param chunk bytes that the client fetches at once; two of them may always be stored.
    explicit ClientPace(std::size_t chunk,
                        std::chrono::microseconds longestRest = kLongestRest) noexcept
        : chunk_(chunk),
          highWater_(std::max(kLeastHighWater, 2 * chunk)),
          longestRest_(longestRest) {}

    /// Stored bytes at which the worker rests, and to which they have to fall for it to go on.
    std::size_t highWater() const noexcept { return highWater_; }
    std::size_t lowWater() const noexcept { return highWater_ / 2; }

    /// Bytes were stored for the client. Worker, with the request's lock held.
    void stored(std::size_t bytes) noexcept;

    /// Stored bytes were fetched or dropped. Any thread, with the request's lock held.
    void taken(std::size_t bytes) noexcept;

    /// Yields the processor if the client is behind, and rests if it is far behind. Worker, without
    /// the request's lock.
    Rest rest() noexcept;

    /// Bytes that are stored and not yet fetched.
    std::size_t waiting() const noexcept { return waiting_; }
    bool isResting() const noexcept { return resting_; }

private:
    Rest restUntilFetched() noexcept;

    const std::size_t chunk_;
    const std::size_t highWater_;
    const std::chrono::microseconds longestRest_;
    // The worker sets resting_ and then looks at waiting_, who takes bytes changes waiting_ and
    // then looks at resting_, sequentially consistent: at least one of them sees what the other
    // did.
    std::atomic<bool> resting_ = false;
    std::atomic<std::size_t> waiting_ = 0;
    std::size_t storedSinceRest_ = 0; // worker only
    Mutex mutex_;                     // between the worker's look and its wait; a leaf
    Condition drained_;
};

} // namespace orvexd
