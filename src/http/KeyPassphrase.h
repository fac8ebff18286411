#pragma once

#include "support/Deployment.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace orvexd {

/// Pass phrase of the client key in plain text, for as short as possible: it is wiped when it goes
/// out of scope. The program file holds it only as words. Each character is the low byte of (word
/// XOR key) >> 6, and the key grows from word to word. Any thread.
class KeyPassphrase {
public:
    static constexpr std::size_t kLength = deployment::kPassphraseWords.size();

    KeyPassphrase() noexcept { buildKeyPassphrase(); }
    ~KeyPassphrase() { explicit_bzero(text_.data(), text_.size()); }
    KeyPassphrase(const KeyPassphrase&) = delete;
    KeyPassphrase& operator=(const KeyPassphrase&) = delete;

    /// NUL-terminated, valid as long as this object. libcurl copies it.
    [[nodiscard]] const char* text() const noexcept { return text_.data(); }

private:
    void buildKeyPassphrase() noexcept {
        constexpr std::uint32_t kKeyStep = 65535;
        constexpr unsigned kNoiseBits = 6;
        // volatile: otherwise the compiler computes the characters and stores them in plain.
        volatile std::uint32_t key = deployment::kPassphraseKey;
        for (std::size_t i = 0; i < kLength; ++i) {
            const std::uint32_t word = deployment::kPassphraseWords[i] ^ key;
            text_[i] = static_cast<char>((word >> kNoiseBits) & 0xffU);
            key = key + kKeyStep;
        }
    }

    std::array<char, kLength + 1> text_{};
};

} // namespace orvexd
