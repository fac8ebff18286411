#include "Yardsticks.h"

#include <cstring>

namespace orvexd::bench {

namespace {

constexpr std::size_t kBlock = std::size_t{64} * 1024;
constexpr std::string_view kDelimiter = "--answer_0123456789abcdefghijklmnopqrstuvwxyz";

} // namespace

char copyThroughBlock(const std::vector<std::string_view>& pieces) {
    std::vector<char> block(kBlock);
    std::size_t used = 0;
    char last = 0;
    for (const std::string_view piece : pieces) {
        if (used + piece.size() > kBlock) {
            used = 0;
        }
        std::memcpy(block.data() + used, piece.data(), piece.size());
        used += piece.size();
        last = block[used - 1];
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
