#include "support/ByteQueue.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace orvexd {

namespace {

/// A first block holds a short answer without waste; later ones double up to the largest.
constexpr std::size_t kSmallestBlock = 256;

} // namespace

ByteQueue::ByteQueue(ByteQueue&& other) noexcept
    : blocks_(std::exchange(other.blocks_, {})),
      first_(std::exchange(other.first_, 0)),
      size_(std::exchange(other.size_, 0)) {}

ByteQueue& ByteQueue::operator=(ByteQueue&& other) noexcept {
    blocks_ = std::exchange(other.blocks_, {});
    first_ = std::exchange(other.first_, 0);
    size_ = std::exchange(other.size_, 0);
    return *this;
}

ByteQueue::Block ByteQueue::makeBlock(std::size_t wanted) const {
    const std::size_t grown = blocks_.empty() ? kSmallestBlock : blocks_.back().capacity * 2;
    Block block;
    block.capacity = std::min(std::max(wanted, grown), kLargestBlock);
    // for_overwrite: the bytes are written before they are read, so no zeroing pass
    block.bytes =
        std::make_unique_for_overwrite<char[]>(block.capacity); // NOLINT(*-avoid-c-arrays)
    return block;
}

void ByteQueue::append(std::string_view bytes) {
    // All new blocks are made before anything is stored, so that running out of memory changes
    // nothing.
    const std::size_t roomAtBack =
        blocks_.empty() ? 0 : blocks_.back().capacity - blocks_.back().end;
    const std::size_t before = blocks_.size();
    std::size_t room = roomAtBack;
    try {
        while (room < bytes.size()) {
            blocks_.push_back(makeBlock(bytes.size() - room));
            room += blocks_.back().capacity;
        }
    } catch (...) {
        blocks_.resize(before);
        throw;
    }
    std::size_t at = before > 0 ? before - 1 : 0;
    while (!bytes.empty()) {
        Block& block = blocks_[at++];
        const std::size_t part = std::min(bytes.size(), block.capacity - block.end);
        std::memcpy(block.bytes.get() + block.end, bytes.data(), part);
        block.end += part;
        size_ += part;
        bytes.remove_prefix(part);
    }
}

std::size_t ByteQueue::takeInto(std::span<char> room) noexcept {
    std::size_t taken = 0;
    while (taken < room.size() && size_ > 0) {
        Block& block = blocks_[first_];
        const std::size_t part = std::min(room.size() - taken, block.end - block.begin);
        std::memcpy(room.data() + taken, block.bytes.get() + block.begin, part);
        block.begin += part;
        taken += part;
        size_ -= part;
        if (block.begin == block.end) {
            dropFrontBlock();
        }
    }
    return taken;
}

std::string ByteQueue::take(std::size_t maxBytes) {
    std::string bytes;
    bytes.reserve(std::min(maxBytes, size_));
    while (bytes.size() < maxBytes && size_ > 0) {
        Block& block = blocks_[first_];
        const std::size_t part = std::min(maxBytes - bytes.size(), block.end - block.begin);
        bytes.append(block.bytes.get() + block.begin, part);
        block.begin += part;
        size_ -= part;
        if (block.begin == block.end) {
            dropFrontBlock();
        }
    }
    return bytes;
}

void ByteQueue::dropFrontBlock() noexcept {
    if (size_ == 0) {
        // One block stays for the next bytes: a stream that is drained as it fills allocates
        // nothing.
        std::swap(blocks_.front(), blocks_[first_]);
        blocks_.resize(1);
        blocks_.front().begin = blocks_.front().end = 0;
        first_ = 0;
        return;
    }
    blocks_[first_++] = Block{};
    if (first_ > blocks_.size() / 2) {
        blocks_.erase(blocks_.begin(), blocks_.begin() + static_cast<std::ptrdiff_t>(first_));
        first_ = 0;
    }
}

bool ByteQueue::endsWithLineBreak() const noexcept {
    if (size_ < 2) {
        return false;
    }
    // Scans back over blocks that hold nothing yet.
    constexpr std::string_view kLineBreak = "\r\n";
    std::size_t matched = 0;
    for (std::size_t at = blocks_.size(); at-- > first_ && matched < kLineBreak.size();) {
        const Block& block = blocks_[at];
        for (std::size_t i = block.end; i-- > block.begin && matched < kLineBreak.size();) {
            if (block.bytes[i] != kLineBreak[kLineBreak.size() - 1 - matched]) {
                return false;
            }
            ++matched;
        }
    }
    return matched == kLineBreak.size();
}

void ByteQueue::dropBack(std::size_t count) noexcept {
    while (count > 0 && size_ > 0) {
        Block& block = blocks_.back();
        const std::size_t part = std::min(count, block.end - block.begin);
        block.end -= part;
        size_ -= part;
        count -= part;
        if (block.begin == block.end && blocks_.size() - first_ > 1) {
            blocks_.pop_back();
        }
    }
}

void ByteQueue::clear() noexcept {
    blocks_.clear();
    first_ = 0;
    size_ = 0;
}

} // namespace orvexd
