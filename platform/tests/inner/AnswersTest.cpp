// Which source a platform file means, and what of the file overrides a live source.

#include "Answers.h"

#include "PlatformFile.h"
#include "Settings.h"

#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>

namespace trilba::test {

namespace {

Settings parsed(const char* text) {
    return parseSettings(text).value();
}

struct Choice {
    const char* name;
    const char* file;
    Surroundings surroundings;
    SourceName chosen;
};

void PrintTo(const Choice& choice, std::ostream* out) {
    *out << choice.name;
}

constexpr Surroundings kNothing{false, false};
constexpr Surroundings kModule{false, true};
constexpr Surroundings kNamed{true, true};

class SourceChoice : public ::testing::TestWithParam<Choice> {};

TEST_P(SourceChoice, FollowsFileEnvironmentAndModule) {
    EXPECT_EQ(chosenSource(parsed(GetParam().file), GetParam().surroundings), GetParam().chosen);
}

constexpr auto kFile = SourceName::File;
constexpr auto kLive = SourceName::NetworkManager;

INSTANTIATE_TEST_SUITE_P(
    Table, SourceChoice,
    ::testing::Values(
        Choice{"nothing, no module", "", kNothing, kFile},
        Choice{"nothing, module", "", kModule, kLive},
        Choice{"auto is the default", "[Platform]\nSource=auto\n", kModule, kLive},
        Choice{"identity only", "[System]\nImei=1\n", kModule, kLive},
        Choice{"proxy only", "[Proxy]\nHost=h\n", kModule, kLive},
        Choice{"empty list", "[Connections]\nList=\n", kModule, kFile},
        Choice{"empty group", "[Connections]\n", kModule, kFile},
        Choice{"a connection that is not listed", "[Connection a]\nKind=1\n", kModule, kFile},
        Choice{"file is named", "", kNamed, kFile},
        Choice{"file is named and asks", "[Platform]\nSource=networkmanager\n", kNamed, kLive},
        Choice{"file wanted", "[Platform]\nSource=file\n", kModule, kFile},
        Choice{"live wanted beside connections",
               "[Platform]\nSource=networkmanager\n[Connections]\nList=a;\n", kModule, kLive},
        Choice{"live wanted, no module", "[Platform]\nSource=networkmanager\n", kNothing, kLive}));

TEST(PlatformFile, WithAnUnknownSourceIsNotUsed) {
    EXPECT_FALSE(parseSettings("[Platform]\nSource=connman\n"));
}

TEST(PlatformFile, ThatWasNeverGoodLeavesItsPlaceToNoOtherSource) {
    const auto path = std::filesystem::temp_directory_path() / "trilba-never-good.conf";
    std::ofstream(path) << "[Connections]\nList=a;\n[Connection a]\nKind=wifi\n";
    const auto reading = PlatformFile::read(path);
    std::filesystem::remove(path);
    EXPECT_EQ(chosenSource(*reading.settings, kModule), kFile);
}

TEST(PlatformFile, WithAFlagMeteredThatIsNoneIsNotUsed) {
    EXPECT_FALSE(parseSettings("[NetworkManager]\nFlagMetered=often\n"));
}

TEST(PlatformFile, NamesTheTypesOfKindOne) {
    const auto settings = parsed("[NetworkManager]\nKindOne=wifi ; vlan;\nFlagMetered=true\n");
    EXPECT_EQ(settings.kindOne, (std::vector<std::string>{"wifi"})); // a comment behind a space
    EXPECT_EQ(parsed("[NetworkManager]\nKindOne=wifi;vlan;\n").kindOne,
              (std::vector<std::string>{"wifi", "vlan"}));
    EXPECT_TRUE(settings.flagMetered);
}

Settings liveState() {
    Settings live;
    live.platformId = "debian-12";
    live.imei = "live-imei";
    live.imsi = "live-imsi";
    live.mmf = "live-fw";
    live.proxyHost = "live-proxy";
    live.proxyPort = 1;
    return live;
}

TEST(Override, LeavesTheLiveAnswersWithoutAFile) {
    const Settings answers = overridden(liveState(), parsed(""));
    EXPECT_EQ(answers.platformId, "debian-12");
    EXPECT_EQ(answers.imei, "live-imei");
    EXPECT_EQ(answers.proxyHost, "live-proxy");
    EXPECT_FALSE(answers.networkPositioning.has_value());
}

TEST(Override, OfSystemTakesTheGroupAsAWhole) {
    const Settings answers = overridden(liveState(), parsed("[System]\nImei=1\n"));
    EXPECT_EQ(answers.imei, "1");
    EXPECT_EQ(answers.imsi, "");
    EXPECT_EQ(answers.mmf, "");
    EXPECT_EQ(answers.platformId, "linux-generic");
    EXPECT_EQ(answers.proxyHost, "live-proxy");
}

TEST(Override, OfProxyTakesTheGroupAsAWhole) {
    const Settings pinned = overridden(liveState(), parsed("[Proxy]\nHost=h\n"));
    EXPECT_EQ(pinned.proxyHost, "h");
    EXPECT_FALSE(pinned.proxyPort.has_value());
    EXPECT_EQ(overridden(liveState(), parsed("[Proxy]\n")).proxyHost, "");
    EXPECT_EQ(pinned.imei, "live-imei");
}

TEST(Override, OfLocationIsTheFiles) {
    const Settings answers =
        overridden(liveState(), parsed("[Location]\nNetworkPositioning=false\n"));
    EXPECT_EQ(answers.networkPositioning, std::optional(false));
}

} // namespace

} // namespace trilba::test
