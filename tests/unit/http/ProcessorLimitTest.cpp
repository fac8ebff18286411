#include "http/HttpClient.h"

#include <gtest/gtest.h>

namespace orvexd {
namespace {

std::chrono::nanoseconds now;

std::chrono::nanoseconds readClock() noexcept {
    return now;
}

class ProcessorLimitTest : public testing::Test {
protected:
    bool isExceeded(double seconds, std::uint64_t bytes) {
        now = start_ + std::chrono::milliseconds(static_cast<long>(seconds * 1000));
        return limit_.isExceeded(bytes);
    }

private:
    const std::chrono::nanoseconds start_ = now;
    ProcessorLimit limit_{&readClock};
};

constexpr std::uint64_t kEnough = ProcessorLimit::kLeastBytes;

TEST_F(ProcessorLimitTest, IsExceededAfterTenSecondsThatBroughtLessThanAMebibyte) {
    EXPECT_FALSE(isExceeded(9.999, kEnough - 1));
    EXPECT_TRUE(isExceeded(10, kEnough - 1));
}

TEST_F(ProcessorLimitTest, BeginsAnewWithEveryMebibyte) {
    EXPECT_FALSE(isExceeded(9, kEnough));
    EXPECT_FALSE(isExceeded(18.9, 2 * kEnough - 1));
    EXPECT_TRUE(isExceeded(19, 2 * kEnough - 1));
}

TEST_F(ProcessorLimitTest, AFastTransferMayTakeAnyTime) {
    for (unsigned number = 1; number < 100; ++number) {
        ASSERT_FALSE(isExceeded(9.9 * number, number * kEnough));
    }
}

TEST(ProcessorTime, IsThatOfTheThread) {
    const auto before = ProcessorLimit::threadTime();
    while (ProcessorLimit::threadTime() == before) {
        // busy on purpose
    }
    EXPECT_GT(ProcessorLimit::threadTime(), before);
}

} // namespace
} // namespace orvexd
