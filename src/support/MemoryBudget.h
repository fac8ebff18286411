#pragma once

#include "support/Deployment.h"
#include "support/Threads.h"

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <glib.h>
#include <memory>
#include <utility>

namespace orvexd {

/// The memory that the daemon spends on what it holds for others: clients' data, servers' answers,
/// and the records that go with them.
///
/// Holders say what they hold by a `Charge`. The budget refuses nothing by itself: a holder asks
/// whether there is room before it takes more, takes what one call brings as a whole, and knows
/// what to do when there is none. So a budget is exceeded by one such piece at the most.
///
/// Any thread.
class MemoryBudget {
public:
    /// @param bytes of the whole budget, not 0.
    explicit MemoryBudget(std::size_t bytes) noexcept : size_(bytes) {}
    ~MemoryBudget() = default;
    MemoryBudget(const MemoryBudget&) = delete;
    MemoryBudget& operator=(const MemoryBudget&) = delete;

    /// The budget of this process. Its size is the deployment's ORVEXD_MEMORY_BUDGET.
    [[nodiscard]] static MemoryBudget& process() {
        static MemoryBudget* const budget = // lives to the end: holders may go after it otherwise
            std::make_unique<MemoryBudget>(deployment::kMemoryBudget).release();
        return *budget;
    }

    /// Bytes of the whole budget.
    [[nodiscard]] std::size_t size() const noexcept { return size_; }
    /// Another size from now on, for tests. What is held stays.
    void resize(std::size_t bytes) noexcept { size_ = bytes; }
    /// Bytes that all holders together hold.
    [[nodiscard]] std::size_t held() const noexcept { return held_; }

    /// The most that a single account may hold: three quarters.
    [[nodiscard]] std::size_t accountBound() const noexcept { return size_ - size_ / 4; }
    /// Whether anything may be added.
    [[nodiscard]] bool hasRoom() const noexcept { return held_ < size_; }
    /// Whether clients' data and answers may be added. They leave a sixteenth free, so that whoever
    /// fills the budget with them does not keep others from what every request needs.
    [[nodiscard]] bool hasRoomForData() const noexcept { return held_ < size_ - size_ / 16; }

    /// Something has changed that a thread in a `RoomWait` looks at.
    void notifyChange() noexcept {
        if (waiters_ > 0) {
            const Lock guard(lock_);
            ++version_;
            changed_.broadcast();
        }
    }

private:
    friend class Charge;
    friend class RoomWait;

    /// Counts bytes that a charge holds from now on, however many are held already.
    void take(std::size_t bytes) noexcept { held_ += bytes; }
    /// Counts them no more, and wakes who waits for room.
    void give(std::size_t bytes) noexcept {
        held_ -= bytes;
        notifyChange();
    }

    std::atomic<std::size_t> size_;
    std::atomic<std::size_t> held_ = 0;
    std::atomic<int> waiters_ = 0;
    Mutex lock_;
    Condition changed_;
    unsigned version_ = 0; // guarded by lock_; wraps
};

/// What one holder holds: its account. It gives back what is left when it goes out of scope. Not
/// thread-safe; the budget that it counts in is. The sizes are estimates of what the allocator
/// takes, made by whoever holds.
class Charge {
public:
    /// @param budget must outlive this object.
    explicit Charge(MemoryBudget& budget, std::size_t bytes = 0) noexcept : budget_(&budget) {
        add(bytes);
    }
    ~Charge() { remove(bytes_); }
    Charge(Charge&& other) noexcept
        : budget_(other.budget_), bytes_(std::exchange(other.bytes_, 0)) {}
    Charge(const Charge&) = delete;
    Charge& operator=(const Charge&) = delete;
    Charge& operator=(Charge&&) = delete;

    /// Holds this many more, whether there is room or not.
    void add(std::size_t bytes) noexcept {
        bytes_ += bytes;
        budget_->take(bytes);
    }
    /// Holds this many less.
    /// @param bytes at most what is held.
    void remove(std::size_t bytes) noexcept {
        bytes_ -= bytes;
        if (bytes > 0) {
            budget_->give(bytes);
        }
    }
    /// Holds this many from now on.
    void set(std::size_t bytes) noexcept {
        bytes > bytes_ ? add(bytes - bytes_) : remove(bytes_ - bytes);
    }

    /// Bytes that it holds.
    [[nodiscard]] std::size_t bytes() const noexcept { return bytes_; }
    /// The budget in which it counts.
    [[nodiscard]] MemoryBudget& budget() const noexcept { return *budget_; }

    /// Bytes that this account may still take.
    [[nodiscard]] std::size_t room() const noexcept {
        const std::size_t held = budget_->held();
        const std::size_t inBudget = budget_->size() - std::min(budget_->size(), held);
        const std::size_t inAccount = budget_->accountBound();
        return std::min(inBudget, inAccount - std::min(inAccount, bytes_));
    }
    /// Whether this account may take data or an answer's bytes.
    [[nodiscard]] bool hasRoomForData() const noexcept {
        return bytes_ < budget_->accountBound() && budget_->hasRoomForData();
    }
    /// Whether this account may take more of what every request needs.
    [[nodiscard]] bool hasRoom() const noexcept {
        return bytes_ < budget_->accountBound() && budget_->hasRoom();
    }

private:
    MemoryBudget* budget_;
    std::size_t bytes_ = 0;
};

/// A thread's wait until there may be room. Made before the thread looks whether there is, so that
/// no change between the look and the wait is missed. One thread; any number may wait at a time.
class RoomWait {
public:
    /// @param budget must outlive this object.
    explicit RoomWait(MemoryBudget& budget) noexcept : budget_(budget) {
        ++budget_.waiters_;
        const Lock guard(budget_.lock_);
        seen_ = budget_.version_;
    }
    ~RoomWait() { --budget_.waiters_; }
    RoomWait(const RoomWait&) = delete;
    RoomWait& operator=(const RoomWait&) = delete;

    /// Waits until something has changed since this object was made, or since the last wait ended.
    /// @param deadline microseconds on g_get_monotonic_time's clock.
    /// @return false when the deadline has passed.
    [[nodiscard]] bool wait(gint64 deadline) noexcept {
        const Lock guard(budget_.lock_);
        bool inTime = true;
        while (inTime && budget_.version_ == seen_) {
            inTime = budget_.changed_.waitUntil(budget_.lock_, deadline);
        }
        seen_ = budget_.version_;
        return inTime;
    }

private:
    MemoryBudget& budget_;
    unsigned seen_ = 0;
};

} // namespace orvexd
