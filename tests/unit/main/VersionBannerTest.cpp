#include "fakes/FakePlatform.h"
#include "main/CommandLine.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string>

namespace orvexd {
namespace {

std::string bannerFor(const std::string& platformId) {
    fake_platform::reset();
    fake_platform::change([&](fake_platform::State& state) { state.platformId = platformId; });
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    printVersionBanner();
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    fake_platform::reset();
    return testing::internal::GetCapturedStdout();
}

TEST(VersionBanner, NamesVersionPlatformAndBuildTime) {
    const std::string banner = bannerFor("linux-generic");
    EXPECT_THAT(banner, testing::MatchesRegex(
                            "trilba 3\\.0\\.1415 \\[linux-generic\\] orvexd built: "
                            "(Jan|Feb|Mar|Apr|May|Jun|Jul|Aug|Sep|Oct|Nov|Dec) [ 1-3][0-9] "
                            "[0-9]{4} [0-9]{2}:[0-9]{2}:[0-9]{2}\n"));
}

TEST(VersionBanner, EmptyPlatformIdLeavesTheBracketsEmpty) {
    EXPECT_TRUE(bannerFor("").starts_with("trilba 3.0.1415 [] orvexd built: "));
}

TEST(VersionBanner, PlatformIdIsNoFormat) {
    EXPECT_TRUE(bannerFor("%s%n").starts_with("trilba 3.0.1415 [%s%n] orvexd built: "));
}

} // namespace
} // namespace orvexd
