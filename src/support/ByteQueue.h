#pragma once

#include <cstddef>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace orvexd {

/// Bytes in order of arrival, kept in blocks: appending never moves what is stored, and taking from
/// the front costs time proportional to the bytes taken. Not thread-safe.
class ByteQueue {
public:
    /// Size of the largest block; longer input is spread over several, so that memory is given
    /// back while a long queue is drained.
    static constexpr std::size_t kLargestBlock = std::size_t{64} * 1024;

    ByteQueue() noexcept = default;
    ~ByteQueue() = default;
    ByteQueue(const ByteQueue&) = delete;
    ByteQueue& operator=(const ByteQueue&) = delete;
    /// The source is left empty and usable.
    ByteQueue(ByteQueue&& other) noexcept;
    ByteQueue& operator=(ByteQueue&& other) noexcept;

    std::size_t size() const noexcept { return size_; }
    bool empty() const noexcept { return size_ == 0; }

    /// Copies `bytes` to the end. On bad_alloc the queue holds what it held before.
    void append(std::string_view bytes);

    /// Moves min(size, room) bytes from the front into `room`; returns how many.
    std::size_t takeInto(std::span<char> room) noexcept;

    /// Takes min(size, maxBytes) bytes from the front as a string.
    std::string take(std::size_t maxBytes);

    /// True when the last two bytes are a carriage return and a line feed.
    bool endsWithLineBreak() const noexcept;

    /// Drops the last `count` bytes; `count` must not exceed the size.
    void dropBack(std::size_t count) noexcept;

    void clear() noexcept;

private:
    struct Block {
        std::unique_ptr<char[]> bytes; // NOLINT(modernize-avoid-c-arrays)
        std::size_t capacity = 0;
        std::size_t begin = 0;
        std::size_t end = 0;
    };

    Block makeBlock(std::size_t wanted) const;
    void dropFrontBlock() noexcept;

    std::vector<Block> blocks_; // blocks before first_ have been taken
    std::size_t first_ = 0;
    std::size_t size_ = 0;
};

} // namespace orvexd
