#pragma once

// How many of the daemon's records exist now, and how often some things have happened, for tests.
// Only a build with the option ORVEXD_STATISTICS counts them; a release never does, and has nothing
// of this in it.

#ifdef ORVEXD_STATISTICS
#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>
#endif

namespace orvexd {

/// What is counted, in the order of the numbers.
enum class Statistic {
    Requests,    ///< RequestData
    Connections, ///< records of parameters that a connection and its requests share
    HeldReplies, ///< calls of getData
    Exchanges,   ///< that are assembled, run, or ended less than 50 ms ago
    Posts,       ///< on their way to the main loop
    // events
    RoomWaits,   ///< the worker has begun to wait for room
    RefusedData, ///< client data was refused as there was no room
};

#ifdef ORVEXD_STATISTICS

/// One number for each. They are in a file that the test reads, so they outlive a crash.
using Statistics = std::array<std::atomic<std::int64_t>, 7>;

/// The file that the environment variable names, as memory until the process ends; else null.
inline Statistics* mapStatistics() noexcept {
    const char* path = std::getenv("ORVEXD_STATISTICS");
    const int file = path != nullptr ? open(path, O_RDWR | O_CLOEXEC) : -1;
    if (file < 0) {
        return nullptr;
    }
    void* memory = mmap(nullptr, sizeof(Statistics), PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
    close(file);
    return memory != MAP_FAILED ? static_cast<Statistics*>(memory) : nullptr;
}

/// The number itself. Any thread. Without a file, one that nobody reads.
inline std::atomic<std::int64_t>& statistic(Statistic which) noexcept {
    static Statistics unread{};
    static Statistics* const mapped = mapStatistics();
    return (mapped != nullptr ? *mapped : unread)[static_cast<std::size_t>(which)];
}

/// A member by which each object of its class is counted for as long as it lives.
template <Statistic kWhich> class Counted {
public:
    Counted() noexcept { ++statistic(kWhich); }
    ~Counted() { --statistic(kWhich); }
    Counted(const Counted& /*other*/) noexcept : Counted() {}
    Counted(Counted&& /*other*/) noexcept : Counted() {}
    Counted& operator=(const Counted&) noexcept = default;
    Counted& operator=(Counted&&) noexcept = default;
};

/// Something has happened once more. Any thread.
inline void countEvent(Statistic which) noexcept {
    ++statistic(which);
}

#else
template <Statistic> class Counted {};
inline void countEvent(Statistic /*which*/) noexcept {}
#endif

} // namespace orvexd
