// The public classes over a live source, whose place a fake takes.

#include "Description.h"
#include "PlatformFixture.h"
#include "inner/FakeSource.h"
#include "trilba/core/ISystemLocationSettings.h"
#include "trilba/core/SystemInfo.h"

namespace trilba::test {

class LiveSourceTest : public PlatformFixture {
protected:
    LiveSourceTest() {
        module_ = FakeModule();
        write(kLive);
    }

    static Settings knowing(const std::string& name) {
        Settings settings;
        settings.imei = name + "-imei";
        settings.proxyHost = name + "-proxy";
        settings.connections.add({name, 1, true, false});
        return settings;
    }

    void tell(const std::string& name) {
        module_.know(knowing(name));
        module_.owner->onSourceChanged();
    }

    static std::string imei() {
        std::string text;
        core::SystemInfo::getImei(text);
        return text;
    }

    std::string proxy() {
        network::ProxyQuery query;
        return manager_->lookUpProxy("https://server.example:443/", &query) == 0 ? query.host : "";
    }

    static constexpr const char* kLive = "[Platform]\nSource=networkmanager\n";

    FakeModule& module_ = FakeModule::instance();
    std::unique_ptr<network::IConnectionManager> manager_;
    CountingObserver observer_;
};

TEST_F(LiveSourceTest, IsNotMadeBeforeAManager) {
    EXPECT_EQ(imei(), "");
    EXPECT_EQ(module_.made, 0);
    manager_ = makeManager();
    EXPECT_EQ(module_.made, 1);
    manager_.reset();
    EXPECT_EQ(module_.alive, 0);
}

TEST_F(LiveSourceTest, AnswersEveryQuestion) {
    module_.know(knowing("net"));
    manager_ = makeManager();
    EXPECT_EQ(firstName(*manager_), "net");
    EXPECT_TRUE(manager_->hasActiveConnection());
    EXPECT_EQ(proxy(), "net-proxy");
    EXPECT_EQ(imei(), "net-imei");
    const std::unique_ptr<core::ISystemLocationSettings> location(
        core::ISystemLocationSettings::create());
    EXPECT_TRUE(location->isNetworkPositioningPermitted());
    EXPECT_FALSE(location->isNetworkPositioningStated());
}

TEST_F(LiveSourceTest, TellsTheObserversOfAChange) {
    manager_ = makeManager();
    manager_->registerObserver(&observer_);
    std::string seen;
    observer_.then = [&] { seen = firstName(*manager_); };
    tell("net");
    EXPECT_EQ(observer_.count, 1);
    EXPECT_EQ(seen, "net");
}

TEST_F(LiveSourceTest, DetailsReachTheAnswersWithoutANotification) {
    manager_ = makeManager();
    manager_->registerObserver(&observer_);
    module_.know(knowing("net"));
    module_.owner->onSourceDetailsChanged();
    EXPECT_EQ(imei(), "net-imei");
    EXPECT_EQ(proxy(), "net-proxy");
    EXPECT_EQ(observer_.count, 0);
}

TEST_F(LiveSourceTest, ObserverMayDeleteTheManagerWhileTheSourceTells) {
    manager_ = makeManager();
    manager_->registerObserver(&observer_);
    observer_.then = [&] { manager_.reset(); };
    tell("net");
    EXPECT_EQ(observer_.count, 1);
    EXPECT_EQ(module_.alive, 0);
}

TEST_F(LiveSourceTest, OverridesOfTheFileCountAtTheMomentOfTheQuestion) {
    module_.know(knowing("net"));
    manager_ = makeManager();
    write(std::string(kLive) + "[System]\nImei=pinned\n[Proxy]\nHost=pinned\n");
    EXPECT_EQ(imei(), "pinned");
    EXPECT_EQ(proxy(), "pinned");
    write(kLive);
    EXPECT_EQ(imei(), "net-imei");
    EXPECT_EQ(proxy(), "net-proxy");
}

TEST_F(LiveSourceTest, HearsWhatTheFileSays) {
    manager_ = makeManager();
    manager_->registerObserver(&observer_);
    replace(std::string(kLive) + "[NetworkManager]\nFlagMetered=true\n");
    ASSERT_TRUE(runLoopUntil([&] { return observer_.count > 0; }));
    EXPECT_TRUE(module_.file->flagMetered);
    EXPECT_EQ(module_.made, 1);
}

TEST_F(LiveSourceTest, GivesWayToTheFileAndComesBack) {
    module_.know(knowing("net"));
    manager_ = makeManager();
    manager_->registerObserver(&observer_);
    replace("[Platform]\nSource=file\n" + listOf("pinned"));
    ASSERT_TRUE(runLoopUntil([&] { return firstName(*manager_) == "pinned"; }));
    EXPECT_EQ(module_.alive, 0);
    EXPECT_EQ(imei(), "");
    replace(kLive);
    ASSERT_TRUE(runLoopUntil([&] { return firstName(*manager_) == "net"; }));
    EXPECT_EQ(module_.made, 2);
    EXPECT_EQ(observer_.count, 2);
}

TEST_F(LiveSourceTest, ThatCannotBeMadeMeansNoConnection) {
    module_.fault = "libnm is missing";
    manager_ = makeManager();
    EXPECT_EQ(manager_->connectionCount(), 0U);
    const auto remarks = describe(*manager_).remarks;
    ASSERT_EQ(remarks.size(), 1U);
    EXPECT_NE(remarks[0].text.find("libnm is missing"), std::string::npos);
    EXPECT_TRUE(remarks[0].isFault);
}

TEST_F(LiveSourceTest, ThatCouldNotBeMadeIsMadeWhenTheFileChanges) {
    module_.fault = "libnm is missing";
    module_.know(knowing("net"));
    manager_ = makeManager();
    module_.fault.clear();
    replace(std::string(kLive) + "[Proxy]\n");
    EXPECT_TRUE(runLoopUntil([&] { return firstName(*manager_) == "net"; }));
    EXPECT_EQ(describe(*manager_).remarks.at(0).text, "fake");
}

TEST_F(LiveSourceTest, IsLookedForOnlyWhereTheFileLeavesItOpen) {
    manager_ = makeManager();
    imei();
    write(listOf("named"));
    manager_ = makeManager();
    imei();
    EXPECT_EQ(module_.lookedFor, 0);
}

TEST_F(LiveSourceTest, EndsItsAnswersWithTheManager) {
    module_.know(knowing("net"));
    manager_ = makeManager();
    manager_.reset();
    EXPECT_EQ(imei(), "");
}

TEST_F(LiveSourceTest, FileThatTheEnvironmentNamesIsTheSourceUnlessItSaysOtherwise) {
    write(listOf("named"));
    manager_ = makeManager();
    EXPECT_EQ(firstName(*manager_), "named");
    fs::remove(file_);
    manager_ = makeManager();
    EXPECT_EQ(module_.made, 0);
}

TEST_F(LiveSourceTest, DescriptionIsToldToHaveChangedWithEveryAnswer) {
    manager_ = makeManager();
    int heard = 0;
    onDescriptionChange(*manager_, [&] { ++heard; });
    module_.owner->onSourceDetailsChanged();
    EXPECT_EQ(heard, 1);
    module_.owner->onSourceChanged();
    EXPECT_EQ(heard, 2);
}

TEST_F(LiveSourceTest, DescriptionTellsSourceRemarksAndAnswers) {
    module_.know(knowing("net"));
    manager_ = makeManager();
    const Description description = describe(*manager_);
    EXPECT_EQ(description.path, file_.string());
    EXPECT_EQ(description.source, SourceName::NetworkManager);
    EXPECT_EQ(description.remarks.at(0).text, "fake");
    EXPECT_EQ(description.answers.imei, "net-imei");
    EXPECT_EQ(description.answers.connections.at(0).name, "net");
    EXPECT_EQ(description.file.source, SourceWish::NetworkManager);
}

} // namespace trilba::test
