#pragma once

#include <array>

namespace orvexd {

/// Pass phrase of the client key in plain text; wiped when it goes out of scope.
class KeyPassphrase {
public:
    static constexpr std::size_t kLength = 8;

    KeyPassphrase() noexcept;
    ~KeyPassphrase();
    KeyPassphrase(const KeyPassphrase&) = delete;
    KeyPassphrase& operator=(const KeyPassphrase&) = delete;
    KeyPassphrase(KeyPassphrase&&) = delete;
    KeyPassphrase& operator=(KeyPassphrase&&) = delete;

    /// NUL-terminated.
    const char* text() const noexcept { return text_.data(); }

private:
    void buildKeyPassphrase() noexcept;

    std::array<char, kLength + 1> text_{};
};

} // namespace orvexd
