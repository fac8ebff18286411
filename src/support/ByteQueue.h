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
    /// Size of the largest block of a queue that is drained as it fills; longer input is spread
    /// over several, so that memory is given back while a long queue is drained.
    static constexpr std::size_t kLargestBlock = std::size_t{64} * 1024;

    /// Size of the blocks that are added once the queue has become longer than this. The kernel can
    /// back each of them with one huge page, and does not clear and map sixteen small pages for
    /// every 64 KiB: that took a fifth of the time of a download that is ahead of its client.
    static constexpr std::size_t kBacklogBlock = std::size_t{2} * 1024 * 1024;

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
    /// Gives a block back to where it came from.
    class FreeBlock {
    public:
        FreeBlock() noexcept : FreeBlock(false) {}
        /// @param isMapped the block has pages of its own, kBacklogBlock bytes.
        explicit FreeBlock(bool isMapped) noexcept : isMapped_(isMapped) {}
        void operator()(char* bytes) const noexcept;

    private:
        bool isMapped_;
    };
    using BlockBytes = std::unique_ptr<char[], FreeBlock>; // NOLINT(modernize-avoid-c-arrays)

    struct Block {
        BlockBytes bytes;
        std::size_t capacity = 0;
        std::size_t begin = 0;
        std::size_t end = 0;
    };

    static Block makeBlock(std::size_t capacity);
    static Block makeBacklogBlock();
    std::size_t nextCapacity(std::size_t wanted) const noexcept;
    void dropFrontBlock() noexcept;

    std::vector<Block> blocks_; // blocks before first_ have been taken
    std::size_t first_ = 0;
    std::size_t size_ = 0;
};

} // namespace orvexd
