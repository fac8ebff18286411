#include "support/ByteQueue.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace orvexd {

namespace {

/// The first block is small, so that a short answer wastes nothing. It doubles up to the largest
/// size.
constexpr std::size_t kSmallestBlock = 256;

} // namespace

std::size_t ByteQueue::roomIn(const Block& block) const noexcept {
    // An allocation may be larger than what was asked for.
    return std::min(block.bytes.capacity(), largestBlock_) - block.bytes.size();
}

/// The new capacity of a block of `capacity` bytes that has to hold `wanted` bytes.
std::size_t ByteQueue::grown(std::size_t capacity, std::size_t wanted) const noexcept {
    const std::size_t size = std::max({kSmallestBlock, 2 * capacity, wanted});
    return size > largestBlock_ / 2 ? largestBlock_ : size;
}

void ByteQueue::reserve(Block& block, std::size_t capacity) {
    const std::size_t before = block.bytes.capacity();
    block.bytes.reserve(capacity);
    reserved_ += block.bytes.capacity() - before;
}

/// An assignment would keep the memory.
void ByteQueue::freeBlock(Block& block) noexcept {
    const std::size_t before = block.bytes.capacity();
    std::string().swap(block.bytes);
    reserved_ -= before - block.bytes.capacity();
}

/// Lets the last block grow as far as it goes, and adds as many as `wanted` bytes need beyond it.
/// Nothing is stored, so that running out of memory changes nothing.
void ByteQueue::growBack(std::size_t wanted) {
    if (blocks_.empty()) {
        blocks_.emplace_back();
    }
    Block& back = blocks_.back();
    std::size_t room = roomIn(back);
    if (room < wanted && back.bytes.capacity() < largestBlock_) {
        reserve(back, grown(back.bytes.capacity(), back.bytes.size() + wanted));
        room = roomIn(back);
    }
    const std::size_t before = blocks_.size();
    try {
        while (room < wanted) {
            reserve(blocks_.emplace_back(), largestBlock_);
            room += largestBlock_;
        }
    } catch (...) {
        while (blocks_.size() > before) {
            freeBlock(blocks_.back());
            blocks_.pop_back();
        }
        throw;
    }
}

void ByteQueue::append(std::string_view bytes) {
    const std::size_t last = blocks_.empty() ? 0 : blocks_.size() - 1;
    growBack(bytes.size());
    for (std::size_t at = last; !bytes.empty(); ++at) {
        Block& block = blocks_[at];
        const std::size_t part = std::min(bytes.size(), roomIn(block));
        block.bytes.append(bytes.data(), part);
        size_ += part;
        bytes.remove_prefix(part);
    }
}

void ByteQueue::takeFromFront(std::size_t count) noexcept {
    Block& block = blocks_[first_];
    block.begin += count;
    size_ -= count;
    if (block.size() == 0) {
        dropFrontBlock();
    }
}

std::size_t ByteQueue::takeInto(std::span<char> room) noexcept {
    std::size_t taken = 0;
    while (taken < room.size() && size_ > 0) {
        const Block& block = blocks_[first_];
        const std::size_t part = std::min(room.size() - taken, block.size());
        std::memcpy(room.data() + taken, block.data(), part);
        taken += part;
        takeFromFront(part);
    }
    return taken;
}

/// Whether the block can be handed out as the string that is taken. A block that is mostly empty
/// would waste memory for as long as the string is kept.
bool ByteQueue::canHandOut(const Block& block, std::size_t count) noexcept {
    return block.begin == 0 && block.bytes.size() == count && block.bytes.capacity() <= 2 * count;
}

std::string ByteQueue::take(std::size_t maxBytes) {
    const std::size_t count = std::min(maxBytes, size_);
    std::string bytes;
    if (count > 0 && canHandOut(blocks_[first_], count)) {
        reserved_ -= blocks_[first_].bytes.capacity() - bytes.capacity();
        bytes.swap(blocks_[first_].bytes);
        size_ -= count;
        dropFrontBlock();
        return bytes;
    }
    bytes.reserve(count);
    while (bytes.size() < count) {
        const Block& block = blocks_[first_];
        const std::size_t part = std::min(count - bytes.size(), block.size());
        bytes.append(block.data(), part);
        takeFromFront(part);
    }
    return bytes;
}

/// The front block holds nothing any more.
void ByteQueue::dropFrontBlock() noexcept {
    if (size_ == 0) {
        // One block stays for the next bytes: a stream that is drained as it fills allocates
        // nothing.
        std::swap(blocks_.front(), blocks_[first_]);
        while (blocks_.size() > 1) {
            freeBlock(blocks_.back());
            blocks_.pop_back();
        }
        blocks_.front().bytes.clear();
        blocks_.front().begin = 0;
        first_ = 0;
        return;
    }
    freeBlock(blocks_[first_++]);
    if (first_ > blocks_.size() / 2) {
        blocks_.erase(blocks_.begin(), blocks_.begin() + static_cast<std::ptrdiff_t>(first_));
        first_ = 0;
    }
}

bool ByteQueue::endsWithLineBreak() const noexcept {
    if (size_ < 2) {
        return false;
    }
    // No block behind first_ is empty as long as there are bytes.
    const Block& back = blocks_.back();
    if (back.bytes.back() != '\n') {
        return false;
    }
    const bool isInBack = back.size() > 1;
    const char before = isInBack ? back.data()[back.size() - 2] : blocks_.end()[-2].bytes.back();
    return before == '\r';
}

void ByteQueue::dropBack(std::size_t count) noexcept {
    while (count > 0 && size_ > 0) {
        Block& block = blocks_.back();
        const std::size_t part = std::min(count, block.size());
        block.bytes.resize(block.bytes.size() - part);
        size_ -= part;
        count -= part;
        if (block.size() == 0 && blocks_.size() - first_ > 1) {
            freeBlock(block);
            blocks_.pop_back();
        }
    }
}

void ByteQueue::clear() noexcept {
    std::vector<Block>().swap(blocks_);
    first_ = 0;
    size_ = 0;
    reserved_ = 0;
}

} // namespace orvexd
