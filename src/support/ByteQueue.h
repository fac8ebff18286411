#pragma once

#include <cstddef>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace orvexd {

/// Bytes in order of arrival, kept in blocks. Appending and taking cost time proportional to the
/// bytes, and memory is given back while a long queue is drained.
///
/// Not thread-safe: the owner guards it with its own lock.
class ByteQueue {
public:
    /// Size of the largest block unless told; longer input is spread over several.
    static constexpr std::size_t kLargestBlock = std::size_t{64} * 1024;

    /// @param largestBlock bytes, not 0. A queue that is taken from in strings of this size hands
    ///   its blocks out as they are, without a copy.
    explicit ByteQueue(std::size_t largestBlock = kLargestBlock) noexcept
        : largestBlock_(largestBlock) {}
    ~ByteQueue() = default;
    ByteQueue(const ByteQueue&) = delete;
    ByteQueue& operator=(const ByteQueue&) = delete;

    /// Bytes that are stored and not yet taken.
    [[nodiscard]] std::size_t size() const noexcept { return size_; }
    [[nodiscard]] bool empty() const noexcept { return size_ == 0; }
    /// Bytes of memory that the queue takes beyond this object, the room in its blocks included.
    [[nodiscard]] std::size_t footprint() const noexcept {
        return reserved_ + blocks_.capacity() * sizeof(Block);
    }

    /// Copies `bytes` to the end.
    /// @throws std::bad_alloc; the queue then holds what it held before.
    void append(std::string_view bytes);

    /// Moves bytes from the front into `room`.
    /// @return how many: the smaller of the queue's and the room's size.
    [[nodiscard]] std::size_t takeInto(std::span<char> room) noexcept;

    /// Takes up to `maxBytes` bytes from the front. A block of exactly that size becomes the string
    /// without a copy.
    /// @throws std::bad_alloc; the queue then holds what it held before.
    [[nodiscard]] std::string take(std::size_t maxBytes);

    /// True when the last two bytes are a carriage return and a line feed, wherever blocks end.
    [[nodiscard]] bool endsWithLineBreak() const noexcept;

    /// Drops the last `count` bytes; `count` must not exceed the size.
    void dropBack(std::size_t count) noexcept;

    /// Drops everything and gives all memory back.
    void clear() noexcept;

private:
    struct Block {
        std::string bytes;
        std::size_t begin = 0; // bytes before it have been taken

        [[nodiscard]] std::size_t size() const noexcept { return bytes.size() - begin; }
        [[nodiscard]] const char* data() const noexcept { return bytes.data() + begin; }
    };

    [[nodiscard]] std::size_t roomIn(const Block& block) const noexcept;
    [[nodiscard]] std::size_t grown(std::size_t capacity, std::size_t wanted) const noexcept;
    void growBack(std::size_t wanted);
    void reserve(Block& block, std::size_t capacity);
    void freeBlock(Block& block) noexcept;
    static bool canHandOut(const Block& block, std::size_t count) noexcept;
    void takeFromFront(std::size_t count) noexcept;
    void dropFrontBlock() noexcept;

    const std::size_t largestBlock_;
    std::vector<Block> blocks_; // blocks before first_ have been taken
    std::size_t first_ = 0;
    std::size_t size_ = 0;
    std::size_t reserved_ = 0; // capacity of all blocks
};

} // namespace orvexd
