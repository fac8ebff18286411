#include "trilba/core/SystemInfo.h"

#include "PlatformFixture.h"
#include "trilba/Debug.h"

namespace trilba::test {

using core::SystemInfo;

class SystemInfoTest : public PlatformFixture {
protected:
    static std::string filled(void (*get)(std::string&)) {
        std::string value = "what was there before";
        get(value);
        return value;
    }
};

TEST_F(SystemInfoTest, MissingFileGivesTheDefaults) {
    EXPECT_EQ(filled(SystemInfo::getPlatformId), "linux-generic");
    EXPECT_EQ(filled(SystemInfo::getImei), "");
    EXPECT_EQ(filled(SystemInfo::getImsi), "");
    EXPECT_EQ(filled(SystemInfo::getMMF), "");
}

TEST_F(SystemInfoTest, AbsentKeysHaveTheDefaults) {
    write("[System]\nImei=1\n");
    EXPECT_EQ(filled(SystemInfo::getPlatformId), "linux-generic");
    EXPECT_EQ(filled(SystemInfo::getImei), "1");
    EXPECT_EQ(filled(SystemInfo::getImsi), "");
}

TEST_F(SystemInfoTest, ValuesComeFromTheFile) {
    write("[System]\nPlatformId=phone-7\nImei=490154203237518\nImsi=262011234567890\nMmf=fw-1.0\n");
    EXPECT_EQ(filled(SystemInfo::getPlatformId), "phone-7");
    EXPECT_EQ(filled(SystemInfo::getImei), "490154203237518");
    EXPECT_EQ(filled(SystemInfo::getImsi), "262011234567890");
    EXPECT_EQ(filled(SystemInfo::getMMF), "fw-1.0");
}

TEST_F(SystemInfoTest, AnEmptyPlatformIdStaysEmpty) {
    write("[System]\nPlatformId=\n");
    EXPECT_EQ(filled(SystemInfo::getPlatformId), "");
}

TEST_F(SystemInfoTest, SpaceAroundAValueDoesNotCount) {
    write("[System]\r\nPlatformId = phone-7 \t\r\n");
    EXPECT_EQ(filled(SystemInfo::getPlatformId), "phone-7");
}

TEST_F(SystemInfoTest, ChangesAreSeenWithoutAManagerOrLoop) {
    write("[System]\nImei=1\n");
    EXPECT_EQ(filled(SystemInfo::getImei), "1");
    write("[System]\nImei=2\n");
    EXPECT_EQ(filled(SystemInfo::getImei), "2");
}

TEST_F(SystemInfoTest, DebugFacilityPrintsNothing) {
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    Debug::init();
    Debug::init();
    Debug::release();
    Debug::release();
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

} // namespace trilba::test
