#pragma once

/// Lets allocations of the calling thread fail, as if the machine had no memory left for it. The
/// program's own code and its templates are concerned, the libraries are not.
namespace failing_memory {

/// One allocation fails while this exists on the thread that made it.
class FailOnce {
public:
    /// @param after so many allocations still succeed.
    explicit FailOnce(int after = 0) noexcept;
    ~FailOnce();
    FailOnce(const FailOnce&) = delete;
    FailOnce& operator=(const FailOnce&) = delete;
    FailOnce(FailOnce&&) = delete;
    FailOnce& operator=(FailOnce&&) = delete;

    /// True when an allocation has failed.
    bool hasFailed() const noexcept;
};

} // namespace failing_memory
