#include "Yardsticks.h"

#include <algorithm>
#include <cstring>
#include <memory>

namespace orvexd::bench {

namespace {

constexpr std::size_t kBlock = std::size_t{64} * 1024;
constexpr std::string_view kDelimiter = "--answer_0123456789abcdefghijklmnopqrstuvwxyz";

} // namespace

char copyIntoBlocks(const std::vector<std::string_view>& pieces) {
    std::vector<std::unique_ptr<char[]>> blocks; // NOLINT(*-avoid-c-arrays)
    std::size_t used = kBlock;
    char last = 0;
    for (std::string_view piece : pieces) {
        while (!piece.empty()) {
            if (used == kBlock) {
                blocks.push_back(std::make_unique_for_overwrite<char[]>(kBlock)); // NOLINT
                used = 0;
            }
            const std::size_t part = std::min(piece.size(), kBlock - used);
            std::memcpy(blocks.back().get() + used, piece.data(), part);
            used += part;
            last = blocks.back()[used - 1];
            piece.remove_prefix(part);
        }
    }
    return last;
}

std::size_t searchPieces(const std::vector<std::string_view>& pieces) {
    std::size_t found = 0;
    for (const std::string_view piece : pieces) {
        if (memmem(piece.data(), piece.size(), kDelimiter.data(), kDelimiter.size()) != nullptr) {
            ++found;
        }
    }
    return found;
}

} // namespace orvexd::bench
