#pragma once

#include <chrono>
#include <cstdint>
#include <ctime>

namespace orvexd {

/// Notices a transfer that costs much processor time and brings next to nothing: a server can keep
/// the worker busy with records, chunks or parts that hold a byte each. One thread only.
class ProcessorLimit {
public:
    /// Bytes that have to come ...
    static constexpr std::uint64_t kLeastBytes = std::uint64_t{1024} * 1024;
    /// ... for this much of the thread's processor time.
    static constexpr std::chrono::seconds kMostTime{10};

    using Clock = std::chrono::nanoseconds (*)() noexcept;

    /// @param clock processor time of the calling thread.
    explicit ProcessorLimit(Clock clock = &threadTime) noexcept
        : clock_(clock), beginning_(clock()) {}

    /// @param bytes of the message and its answer that have travelled so far.
    /// @return true when the time for the next bytes is used up.
    [[nodiscard]] bool isExceeded(std::uint64_t bytes) noexcept {
        const std::chrono::nanoseconds now = clock_();
        if (bytes - bytesBefore_ < kLeastBytes) {
            return now - beginning_ >= kMostTime;
        }
        bytesBefore_ = bytes;
        beginning_ = now;
        return false;
    }

    /// Processor time of the calling thread: clock_gettime(2), CLOCK_THREAD_CPUTIME_ID.
    static std::chrono::nanoseconds threadTime() noexcept {
        timespec time{};
        (void)clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time); // cannot fail with this clock
        return std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec);
    }

private:
    const Clock clock_;
    std::chrono::nanoseconds beginning_;
    std::uint64_t bytesBefore_ = 0;
};

} // namespace orvexd
