#include "support/Version.h"

#include <gtest/gtest.h>

namespace orvexd {
namespace {

TEST(Version, Is3Point0Point1415) {
    EXPECT_EQ(version::kMajor, 3);
    EXPECT_EQ(version::kMinor, 0);
    EXPECT_EQ(version::kBuild, 1415);
}

} // namespace
} // namespace orvexd
