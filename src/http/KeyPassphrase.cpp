#include "http/KeyPassphrase.h"

#include "http/KeyPassphraseWords.h"

#include <cstdint>
#include <cstring>

namespace orvexd {

namespace {

constexpr std::uint32_t kKeyStep = 65535;
constexpr unsigned kNoiseBits = 6;

static_assert(deployment::kPassphraseWords.size() == KeyPassphrase::kLength);

} // namespace

KeyPassphrase::KeyPassphrase() noexcept {
    buildKeyPassphrase();
}

KeyPassphrase::~KeyPassphrase() {
    explicit_bzero(text_.data(), text_.size());
}

void KeyPassphrase::buildKeyPassphrase() noexcept {
    // volatile: otherwise the compiler computes the characters and stores them in plain.
    volatile std::uint32_t key = deployment::kPassphraseKey;
    for (std::size_t i = 0; i < kLength; ++i) {
        const std::uint32_t word = deployment::kPassphraseWords[i] ^ key;
        text_[i] = static_cast<char>((word >> kNoiseBits) & 0xffU);
        key = key + kKeyStep;
    }
}

} // namespace orvexd
