#include "support/ByteQueue.h"

#include "fakes/FailingMemory.h"

#include <algorithm>
#include <array>
#include <gtest/gtest.h>
#include <new>
#include <random>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace orvexd {
namespace {

constexpr std::size_t kLargest = ByteQueue::kLargestBlock;
constexpr std::size_t kFirstBlock = 256; // what a queue asks for in the beginning

/// Bytes that tell their place, so that a wrong order shows.
std::string pattern(std::size_t size, std::size_t from = 0) {
    static const std::string bytes = [] {
        std::string all(8 * kLargest, '\0');
        for (std::size_t i = 0; i < all.size(); ++i) {
            all[i] = static_cast<char>(i * 131 >> 3);
        }
        return all;
    }();
    return bytes.substr(from % kLargest, size);
}

std::string takeAll(ByteQueue& queue) {
    return queue.take(queue.size());
}

TEST(ByteQueue, IsEmptyInTheBeginning) {
    ByteQueue queue;
    EXPECT_TRUE(queue.empty());
    EXPECT_EQ(queue.size(), 0U);
    EXPECT_EQ(queue.take(10), "");
    std::array<char, 4> room{};
    EXPECT_EQ(queue.takeInto(room), 0U);
}

TEST(ByteQueue, GivesBytesInTheOrderOfArrival) {
    ByteQueue queue;
    queue.append("one ");
    queue.append("");
    queue.append("two");
    EXPECT_EQ(queue.size(), 7U);
    EXPECT_EQ(queue.take(5), "one t");
    EXPECT_EQ(queue.take(5), "wo");
    EXPECT_TRUE(queue.empty());
}

TEST(ByteQueue, KeepsNulAndEveryOtherByte) {
    std::string all(256, '\0');
    for (std::size_t i = 0; i < all.size(); ++i) {
        all[i] = static_cast<char>(i);
    }
    ByteQueue queue;
    queue.append(all);
    EXPECT_EQ(takeAll(queue), all);
}

TEST(ByteQueue, TakingNothingChangesNothing) {
    ByteQueue queue;
    queue.append("abc");
    EXPECT_EQ(queue.take(0), "");
    EXPECT_EQ(queue.takeInto({}), 0U);
    EXPECT_EQ(queue.size(), 3U);
}

TEST(ByteQueue, WritesNothingBehindTheBytesTaken) {
    ByteQueue queue;
    queue.append("abc");
    std::array<char, 8> room{};
    room.fill('#');
    EXPECT_EQ(queue.takeInto(room), 3U);
    EXPECT_EQ(std::string(room.data(), room.size()), "abc#####");
}

TEST(ByteQueue, AppendOfEverySizeAroundTheBlockBordersIsGivenBack) {
    for (const std::size_t border : {kFirstBlock, kLargest, 2 * kLargest}) {
        for (std::size_t size = border - 2; size <= border + 2; ++size) {
            ByteQueue queue;
            queue.append(pattern(size));
            queue.append("end");
            EXPECT_EQ(takeAll(queue), pattern(size) + "end") << size;
        }
    }
}

TEST(ByteQueue, TakeOfEverySizeAroundTheBlockBordersKeepsTheRest) {
    const std::string bytes = pattern(3 * kLargest);
    for (const std::size_t border : {kFirstBlock, kLargest, 2 * kLargest}) {
        for (std::size_t size = border - 2; size <= border + 2; ++size) {
            ByteQueue queue;
            queue.append(bytes);
            EXPECT_EQ(queue.take(size), bytes.substr(0, size));
            EXPECT_EQ(takeAll(queue), bytes.substr(size)) << size;
        }
    }
}

TEST(ByteQueue, RandomOperationsAgreeWithAString) {
    std::mt19937 random(20141010); // NOLINT(cert-msc51-cpp): the same run every time
    const auto below = [&](std::size_t limit) { return random() % limit; };
    for (int run = 0; run < 120; ++run) {
        const std::size_t scale = run % 3 == 0 ? 8 : run % 3 == 1 ? 700 : 3 * kLargest;
        const std::size_t largestBlock = run % 2 == 0 ? kLargest : 1 + below(2 * scale);
        ByteQueue queue(largestBlock);
        std::string reference;
        const int steps = scale < kLargest ? 300 : 60;
        for (int step = 0; step < steps; ++step) {
            const std::size_t amount = below(scale);
            switch (below(7)) {
            case 0:
            case 1:
            case 2: {
                std::string bytes = pattern(amount, reference.size());
                if (below(4) == 0) {
                    bytes += below(2) == 0 ? "\r\n" : "\r";
                } else if (below(4) == 0) {
                    bytes.insert(0, "\n");
                }
                queue.append(bytes);
                reference += bytes;
                break;
            }
            case 3: {
                const std::size_t taken = below(2) == 0 ? amount : largestBlock;
                ASSERT_EQ(queue.take(taken), reference.substr(0, taken));
                reference.erase(0, taken);
                break;
            }
            case 4: {
                std::string room(amount, '#');
                const std::size_t taken = queue.takeInto(room);
                ASSERT_EQ(taken, std::min(amount, reference.size()));
                ASSERT_EQ(room.substr(0, taken), reference.substr(0, taken));
                reference.erase(0, taken);
                break;
            }
            case 5: {
                const std::size_t dropped = std::min(amount, reference.size());
                queue.dropBack(dropped);
                reference.resize(reference.size() - dropped);
                break;
            }
            default:
                break;
            }
            ASSERT_EQ(queue.size(), reference.size());
            ASSERT_EQ(queue.empty(), reference.empty());
            ASSERT_EQ(queue.endsWithLineBreak(), reference.ends_with("\r\n"));
        }
        ASSERT_EQ(takeAll(queue), reference);
    }
}

TEST(ByteQueue, SeesALineBreakAtTheEndOnly) {
    const std::vector<std::pair<std::string, bool>> cases = {
        {"", false},       {"\n", false},      {"\r", false},   {"\r\n", true},
        {"a\r\n", true},   {"a\n", false},     {"\n\r", false}, {"\r\na", false},
        {"\r\n\r", false}, {"\r\n\r\n", true}, {"\n\n", false}};
    for (const auto& [bytes, ends] : cases) {
        ByteQueue queue;
        queue.append(bytes);
        EXPECT_EQ(queue.endsWithLineBreak(), ends) << testing::PrintToString(bytes);
    }
}

TEST(ByteQueue, SeesALineBreakThatStandsAcrossABlockBorder) {
    for (const std::size_t border : {kFirstBlock, kLargest}) {
        for (std::size_t before = border - 3; before <= border + 1; ++before) {
            ByteQueue queue;
            queue.append(std::string(kFirstBlock, 'x')); // fills the first block
            queue.append(std::string(before, 'x'));
            queue.append("\r");
            EXPECT_FALSE(queue.endsWithLineBreak());
            queue.append("\n");
            EXPECT_TRUE(queue.endsWithLineBreak()) << before;
            queue.dropBack(1);
            EXPECT_FALSE(queue.endsWithLineBreak()) << before;
        }
    }
}

TEST(ByteQueue, ALineBreakThatWasTakenIsNotSeen) {
    ByteQueue queue;
    queue.append("ab\r\n");
    EXPECT_EQ(queue.take(3), "ab\r");
    EXPECT_FALSE(queue.endsWithLineBreak());
    queue.append("\r\n");
    EXPECT_TRUE(queue.endsWithLineBreak());
}

TEST(ByteQueue, DropsFromTheBackAcrossBlocks) {
    const std::string bytes = pattern(2 * kLargest + 5);
    for (const std::size_t count : {std::size_t{1}, std::size_t{5}, std::size_t{6}, kLargest + 5,
                                    kLargest + 6, bytes.size()}) {
        ByteQueue queue;
        queue.append(bytes);
        queue.dropBack(count);
        queue.append("tail");
        EXPECT_EQ(takeAll(queue), bytes.substr(0, bytes.size() - count) + "tail") << count;
    }
}

// -- cost ----------------------------------------------------------------------------------------

TEST(ByteQueue, AppendingByteByByteAllocatesBlocksOnly) {
    constexpr std::size_t kBytes = 4 * 1024 * 1024;
    ByteQueue queue;
    const failing_memory::Count count;
    for (std::size_t i = 0; i < kBytes; ++i) {
        queue.append("x");
    }
    // 64 blocks of the largest size, the few smaller ones before and the growth of their list
    EXPECT_LE(count.allocations(), kBytes / kLargest + 24);
    EXPECT_LE(count.bytes(), kBytes + 3 * kLargest);
}

TEST(ByteQueue, TakingByteByByteAllocatesNothing) {
    constexpr std::size_t kBytes = 4 * 1024 * 1024;
    ByteQueue queue;
    queue.append(std::string(kBytes, 'x'));
    const failing_memory::Count count;
    char byte = 0;
    while (queue.takeInto({&byte, 1}) == 1) {
    }
    EXPECT_EQ(count.allocations(), 0U);
}

TEST(ByteQueue, GivesMemoryBackWhileItIsDrained) {
    constexpr std::size_t kBytes = 8 * 1024 * 1024;
    std::vector<char> room(kBytes / 2);
    const failing_memory::Count count;
    ByteQueue queue;
    {
        const std::string bytes(kBytes, 'x');
        queue.append(bytes);
    }
    ASSERT_GE(count.held(), static_cast<std::ptrdiff_t>(kBytes));
    EXPECT_EQ(queue.takeInto(room), room.size());
    EXPECT_LE(count.held(), static_cast<std::ptrdiff_t>(kBytes / 2 + 2 * kLargest));
    EXPECT_EQ(queue.takeInto(room), room.size());
    EXPECT_LE(count.held(), static_cast<std::ptrdiff_t>(2 * kLargest));
}

TEST(ByteQueue, StreamThatIsDrainedAsItFillsAllocatesNothingMore) {
    ByteQueue queue;
    const std::string piece(16384, 'x');
    std::vector<char> room(piece.size());
    queue.append(piece);
    (void)queue.takeInto(room);
    const failing_memory::Count count;
    for (int round = 0; round < 1000; ++round) {
        queue.append(piece);
        ASSERT_EQ(queue.takeInto(room), room.size());
    }
    EXPECT_EQ(count.allocations(), 0U);
}

TEST(ByteQueue, QueueThatStaysNonEmptyDoesNotGrow) {
    ByteQueue queue;
    const std::string piece(32000, 'x');
    std::vector<char> room(piece.size());
    queue.append(piece);
    const failing_memory::Count count;
    for (int round = 0; round < 20000; ++round) {
        queue.append(piece);
        ASSERT_EQ(queue.takeInto(room), room.size());
    }
    EXPECT_LE(count.held(), static_cast<std::ptrdiff_t>(3 * kLargest));
}

TEST(ByteQueue, ShortQueueHoldsLittleMemory) {
    const failing_memory::Count count;
    ByteQueue queue;
    queue.append("short");
    EXPECT_LE(count.held(), 512);
    queue.append(pattern(300));
    EXPECT_LE(count.held(), 768);
    queue.append(pattern(1200));
    EXPECT_LE(count.held(), 2048);
}

TEST(ByteQueue, HandsOutItsBlocksWithoutACopy) {
    constexpr std::size_t kBlock = 20000;
    ByteQueue queue(kBlock);
    const std::string bytes = pattern(5 * kBlock);
    for (std::size_t at = 0; at < bytes.size(); at += 7000) {
        queue.append(std::string_view(bytes).substr(at, 7000));
    }
    const failing_memory::Count count;
    for (std::size_t at = 0; at < bytes.size(); at += kBlock) {
        ASSERT_EQ(queue.take(kBlock), std::string_view(bytes).substr(at, kBlock));
    }
    EXPECT_EQ(count.allocations(), 0U);
    EXPECT_TRUE(queue.empty());
}

TEST(ByteQueue, HandsOutWhatThereIsOfABlock) {
    ByteQueue queue(20000);
    queue.append(pattern(12000));
    const failing_memory::Count count;
    const std::string taken = queue.take(20000);
    EXPECT_EQ(count.allocations(), 0U);
    EXPECT_EQ(taken, pattern(12000));
    queue.append("after");
    EXPECT_EQ(takeAll(queue), "after");
}

TEST(ByteQueue, ShortStringDoesNotHoldTheMemoryOfABlock) {
    for (const std::size_t size : {std::size_t{100}, kLargest / 2 - 1}) {
        ByteQueue queue(kLargest);
        queue.append(pattern(kLargest));
        queue.append(pattern(size));
        (void)queue.take(kLargest);
        const std::string taken = queue.take(kLargest);
        EXPECT_EQ(taken, pattern(size));
        EXPECT_LE(taken.capacity(), size) << size;
    }
}

TEST(ByteQueue, StringOfSeveralBlocksIsAllocatedOnce) {
    ByteQueue queue;
    queue.append(pattern(5 * kLargest));
    const failing_memory::Count count;
    const std::string taken = queue.take(5 * kLargest);
    EXPECT_EQ(count.allocations(), 1U);
    EXPECT_EQ(taken, pattern(5 * kLargest));
}

TEST(ByteQueue, KeepsOneBlockForTheNextBytes) {
    ByteQueue queue;
    std::string bytes = pattern(2 * kLargest);
    queue.append(bytes);
    ASSERT_EQ(queue.takeInto(bytes), bytes.size());
    const failing_memory::Count count;
    queue.append(std::string_view(bytes).substr(0, kLargest));
    EXPECT_EQ(count.allocations(), 0U);
}

TEST(ByteQueue, BlockGrowsUpToTheLargestByDoubling) {
    ByteQueue queue(kLargest);
    const failing_memory::Count count;
    for (std::size_t i = 0; i < kLargest; ++i) {
        queue.append("x");
    }
    EXPECT_LE(count.allocations(), 10U); // 256 bytes to 64 KiB, and the list
    EXPECT_LE(count.held(), static_cast<std::ptrdiff_t>(kLargest + 200));
    EXPECT_EQ(queue.take(kLargest), std::string(kLargest, 'x'));
}

TEST(ByteQueue, BlockTakesUnevenSizesWithoutOutgrowingTheLargest) {
    for (const std::size_t first : {1000U, 20000U, 33000U, 60000U}) {
        ByteQueue queue(kLargest);
        const failing_memory::Count count;
        queue.append(pattern(first));
        while (queue.size() < kLargest) {
            queue.append("x");
        }
        EXPECT_LE(count.held(), static_cast<std::ptrdiff_t>(kLargest + 200)) << first;
    }
}

// -- running out of memory -----------------------------------------------------------------------

TEST(ByteQueue, GrowthThatRunsOutOfMemoryChangesNothing) {
    ByteQueue queue;
    queue.append(pattern(200));
    (void)queue.take(10);
    {
        const failing_memory::FailOnce limit(0);
        EXPECT_THROW(queue.append(pattern(300)), std::bad_alloc);
    }
    EXPECT_EQ(queue.size(), 190U);
    queue.append("tail");
    EXPECT_EQ(takeAll(queue), pattern(200).substr(10) + "tail");
}

TEST(ByteQueue, AppendThatRunsOutOfMemoryChangesNothing) {
    const std::string before = pattern(kLargest + 100);
    const std::string added = pattern(5 * kLargest, 7);
    std::size_t failures = 0;
    for (int allowed = 0;; ++allowed) {
        ByteQueue queue;
        queue.append(before);
        (void)queue.take(10);
        const failing_memory::Count count;
        try {
            const failing_memory::FailOnce limit(allowed);
            queue.append(added);
        } catch (const std::bad_alloc&) {
            ++failures;
            ASSERT_EQ(queue.size(), before.size() - 10);
            ASSERT_LT(count.held(), 4096) << "no block is left over";
            queue.append("tail");
            ASSERT_EQ(takeAll(queue), before.substr(10) + "tail") << allowed;
            continue;
        }
        EXPECT_EQ(takeAll(queue), before.substr(10) + added);
        break;
    }
    EXPECT_GE(failures, 5U) << "one for each block";
}

TEST(ByteQueue, FirstAppendThatRunsOutOfMemoryLeavesItEmpty) {
    for (int allowed = 0; allowed < 2; ++allowed) {
        const std::string bytes = pattern(100);
        ByteQueue queue;
        const failing_memory::FailOnce limit(allowed);
        EXPECT_THROW(queue.append(bytes), std::bad_alloc);
        EXPECT_TRUE(queue.empty());
        EXPECT_FALSE(queue.endsWithLineBreak());
    }
}

} // namespace
} // namespace orvexd
