#include "support/Threads.h"

#include <cstddef>
#include <fstream>
#include <gtest/gtest.h>
#include <memory>
#include <unistd.h>
#include <vector>

namespace orvexd {
namespace {

#if defined(__GLIBC__) && !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)

std::size_t residentBytes() {
    std::size_t total = 0;
    std::size_t resident = 0;
    std::ifstream("/proc/self/statm") >> total >> resident;
    return resident * static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
}

TEST(FreeMemory, GoesBackAlsoBetweenBlocksThatAreInUse) {
    constexpr std::size_t kBlocks = 400;
    constexpr std::size_t kBlockSize = 40'000;
    std::vector<std::unique_ptr<std::vector<char>>> blocks;
    for (std::size_t block = 0; block < kBlocks; ++block) {
        blocks.push_back(std::make_unique<std::vector<char>>(kBlockSize, 'x'));
    }
    for (std::size_t block = 0; block + 1 < kBlocks; ++block) {
        blocks[block].reset(); // the last one keeps the heap's end where it is
    }
    const std::size_t before = residentBytes();
    returnFreeMemory();
    EXPECT_LT(residentBytes() + kBlocks * kBlockSize / 2, before);
    EXPECT_EQ(blocks.back()->back(), 'x');
}

#else

TEST(FreeMemory, MayBeReturnedWithOtherAllocators) {
    const auto block = std::make_unique<std::vector<char>>(1000, 'x');
    returnFreeMemory();
    EXPECT_EQ(block->back(), 'x');
}

#endif

} // namespace
} // namespace orvexd
