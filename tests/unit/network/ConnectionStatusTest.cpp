#include "network/ConnectionStatus.h"

#include <gtest/gtest.h>

namespace orvexd {
namespace {

TEST(ConnectionStatus, BitsAreFixed) {
    EXPECT_EQ(StatusConnected, 1U);
    EXPECT_EQ(StatusKindOne, 2U);
    EXPECT_EQ(StatusFlagged, 4U);
}

TEST(ConnectionPolicy, ValuesAreFixed) {
    EXPECT_EQ(KindOneOnly, 0U);
    EXPECT_EQ(NotFlagged, 2U);
    EXPECT_EQ(AnyConnection, 3U);
}

} // namespace
} // namespace orvexd
