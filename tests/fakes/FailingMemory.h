#pragma once

#include <cstddef>

/// Counts allocations of the calling thread and lets them fail, as if the machine had no memory
/// left for it. The program's own code and its templates are concerned, the libraries are not.
namespace failing_memory {

/// One allocation fails while this exists on the thread that made it.
class FailOnce {
public:
    /// @param after so many allocations still succeed.
    explicit FailOnce(int after = 0) noexcept;
    ~FailOnce();
    FailOnce(const FailOnce&) = delete;
    FailOnce& operator=(const FailOnce&) = delete;

    /// True when an allocation has failed.
    bool hasFailed() const noexcept;
};

/// What the thread has allocated since this was made.
class Count {
public:
    Count() noexcept;

    std::size_t allocations() const noexcept;
    /// Bytes asked for, given back or not.
    std::size_t bytes() const noexcept;
    /// Bytes that are held now and were not before; negative when more was given back.
    std::ptrdiff_t held() const noexcept;

private:
    std::size_t allocations_;
    std::size_t bytes_;
    std::ptrdiff_t held_;
};

} // namespace failing_memory
