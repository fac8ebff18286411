#include "http/TransferOptions.h"
#include "support/Deployment.h"

#include <array>
#include <cstdint>
#include <cstring>
#include <gtest/gtest.h>
#include <memory>
#include <string>

namespace orvexd::test {
namespace {

/// The configured pass phrase, which comes in hexadecimal so that no text needs quoting.
std::string deployedPassphrase() {
    const std::string digits = ORVEXD_PASSPHRASE_HEX;
    std::string text;
    for (std::size_t at = 0; at < digits.size(); at += 2) {
        text += static_cast<char>(std::stoi(digits.substr(at, 2), nullptr, 16));
    }
    return text;
}

TEST(KeyPassphrase, IsTheDeployedOne) {
    EXPECT_EQ(KeyPassphrase().text(), deployedPassphrase());
}

TEST(KeyPassphrase, HasEightCharactersAndEndsInNul) {
    const KeyPassphrase passphrase;
    EXPECT_EQ(std::strlen(passphrase.text()), 8U);
}

TEST(KeyPassphrase, IsTheLowByteOfEachWordXoredWithTheRunningKeyAndShiftedBySix) {
    std::string text;
    std::uint32_t key = deployment::kPassphraseKey;
    for (const std::uint32_t word : deployment::kPassphraseWords) {
        text += static_cast<char>(((word ^ key) >> 6U) & 0xffU);
        key += 65535U;
    }
    EXPECT_EQ(KeyPassphrase().text(), text);
}

TEST(KeyPassphrase, IsWipedWhenItGoesOutOfScope) {
    alignas(KeyPassphrase) std::array<unsigned char, sizeof(KeyPassphrase)> memory{};
    memory.fill(0xaa);
    std::destroy_at(std::construct_at(reinterpret_cast<KeyPassphrase*>(memory.data())));
    // Read through a pointer that the compiler cannot follow past the object's end of life.
    const volatile unsigned char* bytes = memory.data();
    for (std::size_t i = 0; i <= KeyPassphrase::kLength; ++i) {
        EXPECT_EQ(bytes[i], 0) << i;
    }
}

} // namespace
} // namespace orvexd::test
