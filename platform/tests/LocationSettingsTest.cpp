#include "PlatformFixture.h"
#include "trilba/core/ISystemLocationSettings.h"

namespace trilba::test {

using core::ISystemLocationSettings;

class LocationSettingsTest : public PlatformFixture {
protected:
    std::unique_ptr<ISystemLocationSettings> settings_{ISystemLocationSettings::create()};
};

TEST_F(LocationSettingsTest, MissingFilePermits) {
    EXPECT_TRUE(settings_->isNetworkPositioningPermitted());
    EXPECT_TRUE(settings_->isNetworkPositioningEnabled());
    EXPECT_FALSE(settings_->isNetworkPositioningStated());
}

TEST_F(LocationSettingsTest, MissingKeyPermits) {
    write("[Location]\n");
    EXPECT_TRUE(settings_->isNetworkPositioningPermitted());
    EXPECT_TRUE(settings_->isNetworkPositioningEnabled());
    EXPECT_FALSE(settings_->isNetworkPositioningStated());
}

TEST_F(LocationSettingsTest, OneKeyAnswersBothQuestions) {
    write("[Location]\nNetworkPositioning=false\n");
    EXPECT_FALSE(settings_->isNetworkPositioningPermitted());
    EXPECT_FALSE(settings_->isNetworkPositioningEnabled());
    EXPECT_TRUE(settings_->isNetworkPositioningStated());
}

TEST_F(LocationSettingsTest, EachQuestionReadsTheFile) {
    write("[Location]\nNetworkPositioning=false\n");
    EXPECT_FALSE(settings_->isNetworkPositioningPermitted());
    replace("[Location]\nNetworkPositioning=true\n");
    EXPECT_TRUE(settings_->isNetworkPositioningPermitted());
    EXPECT_TRUE(settings_->isNetworkPositioningEnabled());
    replace("[Location]\nNetworkPositioning=false\n");
    EXPECT_FALSE(settings_->isNetworkPositioningEnabled());
}

TEST_F(LocationSettingsTest, AWordThatIsNoTruthValueLeavesTheLastAnswer) {
    write("[Location]\nNetworkPositioning=false\n");
    EXPECT_FALSE(settings_->isNetworkPositioningPermitted());
    write("[Location]\nNetworkPositioning=maybe\n");
    EXPECT_FALSE(settings_->isNetworkPositioningPermitted());
}

} // namespace trilba::test
