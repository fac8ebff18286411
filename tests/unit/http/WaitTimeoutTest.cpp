#include "http/RequestBody.h"

#include <gtest/gtest.h>
#include <limits>

namespace orvexd::test {
namespace {

using std::chrono::milliseconds;

constexpr const char* kTooLarge = "99999999999999999999";

class WaitTimeoutTest : public testing::Test {
protected:
    milliseconds wait(const std::string& type) const {
        return RequestBody::waitTimeout(type, parameters_);
    }
    void set(const std::string& key, const std::string& value) { parameters_.set(key, value); }

private:
    Parameters parameters_;
};

TEST_F(WaitTimeoutTest, IsNinetySecondsForAFingerprint) {
    EXPECT_EQ(wait("fingerprint"), milliseconds(90000));
}

TEST_F(WaitTimeoutTest, IsFiveSecondsForEveryOtherType) {
    for (const char* type : {"position", "", "Fingerprint", "fingerprint ", "fingerprints", "x"}) {
        EXPECT_EQ(wait(type), milliseconds(5000)) << type;
    }
}

TEST_F(WaitTimeoutTest, IsTheValueOfTheTypesOwnKey) {
    set("orvexd/wait_timeout/fingerprint", "1000");
    set("orvexd/wait_timeout/position", "250");
    EXPECT_EQ(wait("fingerprint"), milliseconds(1000));
    EXPECT_EQ(wait("position"), milliseconds(250));
    EXPECT_EQ(wait("other"), milliseconds(5000));
}

TEST_F(WaitTimeoutTest, OfAnEmptyTypeIsTheValueOfTheKeyThatEndsInASlash) {
    set("orvexd/wait_timeout/", "700");
    EXPECT_EQ(wait(""), milliseconds(700));
    EXPECT_EQ(wait("position"), milliseconds(5000));
}

TEST_F(WaitTimeoutTest, IgnoresTheFallbackKeyWhenTheTypesKeyIsAbsent) {
    set("orvexd/wait_timeout", "123");
    EXPECT_EQ(wait(""), milliseconds(5000));
    EXPECT_EQ(wait("position"), milliseconds(5000));
    EXPECT_EQ(wait("fingerprint"), milliseconds(90000));
}

TEST_F(WaitTimeoutTest, TakesAnEmptyValueForAnAbsentOne) {
    set("orvexd/wait_timeout/fingerprint", "");
    set("orvexd/wait_timeout/position", "");
    EXPECT_EQ(wait("fingerprint"), milliseconds(90000));
    EXPECT_EQ(wait("position"), milliseconds(5000));
}

TEST_F(WaitTimeoutTest, IsZeroForAValueWithoutDigits) {
    set("orvexd/wait_timeout/position", "soon");
    set("orvexd/wait_timeout", "123");
    EXPECT_EQ(wait("position"), milliseconds(0));
}

TEST_F(WaitTimeoutTest, IgnoresWhatFollowsTheDigits) {
    set("orvexd/wait_timeout/position", " 12ms");
    EXPECT_EQ(wait("position"), milliseconds(12));
}

TEST_F(WaitTimeoutTest, MayBeNegative) {
    set("orvexd/wait_timeout/position", "-5");
    EXPECT_EQ(wait("position"), milliseconds(-5));
}

TEST_F(WaitTimeoutTest, OfAValueOutOfRangeIsThatOfTheFallbackKey) {
    set("orvexd/wait_timeout/position", kTooLarge);
    set("orvexd/wait_timeout", "123");
    EXPECT_EQ(wait("position"), milliseconds(123));
}

TEST_F(WaitTimeoutTest, IsFiveSecondsWhenTheFallbackIsOutOfRangeToo) {
    set("orvexd/wait_timeout/fingerprint", kTooLarge);
    set("orvexd/wait_timeout", kTooLarge);
    EXPECT_EQ(wait("fingerprint"), milliseconds(5000));
}

TEST_F(WaitTimeoutTest, IsZeroWhenTheFallbackHoldsNoDigits) {
    set("orvexd/wait_timeout/position", kTooLarge);
    set("orvexd/wait_timeout", "never");
    EXPECT_EQ(wait("position"), milliseconds(0));
}

TEST_F(WaitTimeoutTest, OfAValueOutOfRangeWithoutFallbackIsTheLongestThereIs) {
    set("orvexd/wait_timeout/position", kTooLarge);
    EXPECT_EQ(wait("position"), milliseconds(std::numeric_limits<long>::max()));
    set("orvexd/wait_timeout", "");
    EXPECT_EQ(wait("position"), milliseconds(std::numeric_limits<long>::max()));
}

} // namespace
} // namespace orvexd::test
