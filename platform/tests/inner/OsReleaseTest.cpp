#include "OsRelease.h"

#include <gtest/gtest.h>

namespace trilba::test {

TEST(OsRelease, JoinsIdAndVersion) {
    EXPECT_EQ(OsRelease::parse("ID=debian\nVERSION_ID=\"12\"\n").platformId, "debian-12");
}

TEST(OsRelease, OfARollingSystemHasNoVersion) {
    EXPECT_EQ(OsRelease::parse("ID='arch'\n").platformId, "arch");
    EXPECT_EQ(OsRelease::parse("").platformId, "linux");
}

TEST(OsRelease, NamesTheBuildAsTheFirmware) {
    EXPECT_EQ(OsRelease::parse("VERSION_ID=12\nIMAGE_VERSION=7\nBUILD_ID=b9\n").firmwareId, "b9");
    EXPECT_EQ(OsRelease::parse("VERSION_ID=12\nIMAGE_VERSION=7\n").firmwareId, "7");
    EXPECT_EQ(OsRelease::parse("VERSION_ID=12\n").firmwareId, "12");
    EXPECT_EQ(OsRelease::parse("ID=arch\n").firmwareId, "");
}

TEST(OsRelease, IgnoresCommentsAndWhatIsNoAssignment) {
    EXPECT_EQ(OsRelease::parse("#ID=no\n\nnothing\nID=yes").platformId, "yes");
}

TEST(OsRelease, DropsAValueWhoseQuoteDoesNotEnd) {
    EXPECT_EQ(OsRelease::parse("ID=\"deb\nVERSION_ID=12").platformId, "linux-12");
}

} // namespace trilba::test
