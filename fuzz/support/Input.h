#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string_view>

namespace orvexd::fuzz {

/// Reads a fuzzer's input from front to back. What is missing at the end is zero or empty, so that
/// every input means something. Digits and letters have small values, so that seeds are readable.
class Input {
public:
    Input(const std::uint8_t* data, std::size_t size) noexcept
        : rest_(reinterpret_cast<const char*>(data), size) {}

    bool empty() const noexcept { return rest_.empty(); }

    std::uint8_t byte() noexcept {
        const std::uint8_t value = rest_.empty() ? 0 : static_cast<std::uint8_t>(rest_.front());
        rest_.remove_prefix(rest_.empty() ? 0 : 1);
        return value;
    }

    /// A number below `limit`; the digits stand for themselves.
    std::size_t number(std::size_t limit) noexcept {
        return static_cast<std::uint8_t>(byte() - '0') % limit;
    }

    /// One of `commands`: the byte itself when it is among them.
    char command(std::string_view commands) noexcept {
        const std::uint8_t value = byte();
        const auto letter = static_cast<char>(value);
        return commands.find(letter) != std::string_view::npos ? letter
                                                               : commands[value % commands.size()];
    }

    /// The bytes up to the next line feed, which is dropped.
    std::string_view line() noexcept {
        const std::size_t end = std::min(rest_.find('\n'), rest_.size());
        const std::string_view text = rest_.substr(0, end);
        rest_.remove_prefix(std::min(end + 1, rest_.size()));
        return text;
    }

    std::string_view rest() noexcept {
        const std::string_view text = rest_;
        rest_ = {};
        return text;
    }

private:
    std::string_view rest_;
};

} // namespace orvexd::fuzz
