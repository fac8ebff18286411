#pragma once

#include <algorithm>
#include <cstddef>
#include <memory>
#include <span>
#include <string_view>

namespace orvexd::fuzz {

/// Room for exactly so many bytes and not one more, nor a NUL behind them: the address sanitizer
/// sees every access outside. A string would have room to spare.
class ExactRoom {
public:
    explicit ExactRoom(std::size_t size)
        : bytes_(std::make_unique_for_overwrite<char[]>(size)),
          size_(size) {} // NOLINT(*-avoid-c-arrays)

    std::span<char> span() const noexcept { return {bytes_.get(), size_}; }
    std::string_view view() const noexcept { return {bytes_.get(), size_}; }

private:
    std::unique_ptr<char[]> bytes_; // NOLINT(*-avoid-c-arrays)
    std::size_t size_;
};

/// A text in such room.
class ExactCopy {
public:
    explicit ExactCopy(std::string_view text) : room_(text.size()) {
        std::copy(text.begin(), text.end(), room_.span().begin());
    }

    std::string_view view() const noexcept { return room_.view(); }

private:
    ExactRoom room_;
};

} // namespace orvexd::fuzz
