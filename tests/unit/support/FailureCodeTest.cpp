#include "support/FailureCode.h"

#include <gtest/gtest.h>

namespace orvexd {
namespace {

// Clients read these numbers from error replies, signals and results.

TEST(FailureCode, NumbersOfTheRequestOperations) {
    EXPECT_EQ(failure::kNone, 0);
    EXPECT_EQ(failure::kUnknownRequest, 41);
    EXPECT_EQ(failure::kNotAccepting, 57);
    EXPECT_EQ(failure::kUnknownConnection, 1001);
    EXPECT_EQ(failure::kBadArguments, 2002);
}

TEST(FailureCode, NumbersOfTheExchange) {
    EXPECT_EQ(failure::kTransport, 43);
    EXPECT_EQ(failure::kRefusedByServer, 51);
    EXPECT_EQ(failure::kServerError, 55);
    EXPECT_EQ(failure::kNotAuthorized, 56);
    EXPECT_EQ(failure::kFormat, 1003);
    EXPECT_EQ(failure::kExchangeFailed, 2001);
}

TEST(FailureCode, NumbersOfWhatIsNotAllowed) {
    EXPECT_EQ(failure::kNoConnection, 2204);
    EXPECT_EQ(failure::kNotPermitted, 2205);
}

} // namespace
} // namespace orvexd
