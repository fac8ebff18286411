#include "network/OrvexNetworkManager.h"

#include "fakes/FakePlatform.h"
#include "fakes/MainContext.h"
#include "support/Deployment.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstring>
#include <functional>
#include <future>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace orvexd {
namespace {

using test::drainMainContext;
using test::iterateUntil;
using trilba::network::ConnectionInfo;
using trilba::network::ProxyQuery;

using Calls = std::vector<std::string>;

/// Writes down what it is told and may ask back in the middle of it.
class RecordingOwner : public INetworkOwner {
public:
    void onConnectionStatus(std::uint32_t status, bool recheck) override {
        note("status " + std::to_string(status) + (recheck ? " recheck" : ""));
    }
    void onNetworkAvailable() override { note("available"); }
    void onConnectionLost() override { note("lost"); }
    void requestFreshConnect() override { note("fresh"); }

    Calls calls;
    std::vector<std::thread::id> threads;
    std::function<void()> inside;

private:
    void note(const std::string& call) {
        calls.push_back(call);
        threads.push_back(std::this_thread::get_id());
        if (inside) {
            inside();
        }
    }
};

ConnectionInfo entry(int kind, bool active, bool flagged) {
    return {.name = "link", .kind = kind, .active = active, .flagged = flagged};
}

class OrvexNetworkManagerTest : public testing::Test {
protected:
    OrvexNetworkManagerTest() { fake_platform::reset(); }
    ~OrvexNetworkManagerTest() override {
        questions_.clear();
        manager_.reset();
        EXPECT_EQ(fake_platform::liveObjects(), 0);
        fake_platform::reset();
    }
    OrvexNetworkManagerTest(const OrvexNetworkManagerTest&) = delete;
    OrvexNetworkManagerTest& operator=(const OrvexNetworkManagerTest&) = delete;

    static void setConnections(const std::vector<ConnectionInfo>& connections) {
        fake_platform::change(
            [&](fake_platform::State& state) { state.connections = connections; });
    }

    void start(const std::vector<ConnectionInfo>& connections = {}) {
        setConnections(connections);
        manager_ = std::make_unique<OrvexNetworkManager>(owner_);
        manager_->start();
    }

    std::uint32_t statusOf(const std::vector<ConnectionInfo>& connections) {
        start(connections);
        return manager_->currentStatus();
    }

    /// Answers the look-up with result 0 after `fill`.
    static void answerProxy(const std::function<void(ProxyQuery&)>& fill) {
        fake_platform::change([&](fake_platform::State& state) {
            state.proxy = [fill](const std::string& /*url*/, ProxyQuery& query) {
                fill(query);
                return trilba::network::kProxyFound;
            };
        });
    }

    /// Asks from another thread, which only gets an answer when nobody holds the lock. A thread
    /// that gets none is waited for when the lock is free again.
    bool isLockFree() {
        questions_.push_back(
            std::async(std::launch::async, [this] { return manager_->currentStatus(); }));
        return questions_.back().wait_for(std::chrono::seconds(5)) == std::future_status::ready;
    }

    RecordingOwner owner_;
    std::unique_ptr<OrvexNetworkManager> manager_;

private:
    std::vector<std::future<std::uint32_t>> questions_;
};

// -- status --------------------------------------------------------------------------------------

TEST_F(OrvexNetworkManagerTest, BeforeStartThereIsNoConnectionAndNoProxy) {
    const OrvexNetworkManager manager(owner_);
    EXPECT_EQ(manager.currentStatus(), 0U);
    EXPECT_FALSE(manager.hasActiveConnection());
    EXPECT_FALSE(manager.hasFlaggedConnection());
    EXPECT_EQ(manager.proxyFor(), "");
}

TEST_F(OrvexNetworkManagerTest, NoEntryIsStatus0) {
    EXPECT_EQ(statusOf({}), 0U);
}

TEST_F(OrvexNetworkManagerTest, NoActiveEntryIsStatus0) {
    EXPECT_EQ(statusOf({entry(1, false, false), entry(2, false, true), entry(9, false, false)}),
              0U);
}

TEST_F(OrvexNetworkManagerTest, Kind1IsStatus3WhateverItsFlag) {
    EXPECT_EQ(statusOf({entry(1, true, false)}), 3U);
    EXPECT_EQ(statusOf({entry(1, true, true)}), 3U);
}

TEST_F(OrvexNetworkManagerTest, Kind2WithoutFlagIsStatus1) {
    EXPECT_EQ(statusOf({entry(2, true, false)}), 1U);
}

TEST_F(OrvexNetworkManagerTest, Kind2WithFlagIsStatus5) {
    EXPECT_EQ(statusOf({entry(2, true, true)}), 5U);
}

TEST_F(OrvexNetworkManagerTest, EveryOtherKindIsStatus5) {
    for (const int kind : {0, 3, -1, 2147483647}) {
        EXPECT_EQ(statusOf({entry(kind, true, false)}), 5U) << kind;
        EXPECT_EQ(statusOf({entry(kind, true, true)}), 5U) << kind;
    }
}

TEST_F(OrvexNetworkManagerTest, OnlyTheFirstActiveEntryCounts) {
    EXPECT_EQ(statusOf({entry(2, true, false), entry(1, true, false)}), 1U);
    EXPECT_EQ(statusOf({entry(1, false, true), entry(2, true, true), entry(1, true, false)}), 5U);
}

TEST_F(OrvexNetworkManagerTest, InactiveFlaggedEntryIsFlaggedButNoStatus) {
    start({entry(2, false, true)});
    EXPECT_EQ(manager_->currentStatus(), 0U);
    EXPECT_FALSE(manager_->hasActiveConnection());
    EXPECT_TRUE(manager_->hasFlaggedConnection());
}

TEST_F(OrvexNetworkManagerTest, ActiveEntryBehindInactiveOnesIsActive) {
    start({entry(1, false, false), entry(2, true, false)});
    EXPECT_TRUE(manager_->hasActiveConnection());
    EXPECT_FALSE(manager_->hasFlaggedConnection());
}

// -- start ---------------------------------------------------------------------------------------

TEST_F(OrvexNetworkManagerTest, StartObservesThePlatformAndTellsNobody) {
    start({entry(1, true, false)});
    EXPECT_EQ(fake_platform::observerCount(), 1U);
    EXPECT_EQ(owner_.calls, Calls{});
}

TEST_F(OrvexNetworkManagerTest, PlatformWithoutManagerMeansNoConnectionAndNoProxy) {
    fake_platform::change([](fake_platform::State& state) { state.managerExists = false; });
    start({entry(1, true, false)});
    EXPECT_EQ(manager_->currentStatus(), 0U);
    EXPECT_EQ(manager_->proxyFor(), "");
    manager_->onConnectionsChanged();
    EXPECT_EQ(owner_.calls, (Calls{"status 0 recheck", "lost", "fresh"}));
}

TEST_F(OrvexNetworkManagerTest, PlatformsManagerGoesWithIt) {
    start();
    EXPECT_EQ(fake_platform::liveObjects(), 1);
    manager_.reset();
    EXPECT_EQ(fake_platform::liveObjects(), 0);
    EXPECT_EQ(fake_platform::observerCount(), 0U);
}

// -- notifications -------------------------------------------------------------------------------

TEST_F(OrvexNetworkManagerTest, NotificationTellsStatusAvailabilityAndFreshConnectInThisOrder) {
    start();
    setConnections({entry(1, true, false)});
    fake_platform::notifyObservers();
    EXPECT_EQ(owner_.calls, (Calls{"status 3 recheck", "available", "fresh"}));
}

TEST_F(OrvexNetworkManagerTest, NotificationWithoutActiveConnectionTellsTheLoss) {
    start({entry(1, true, false)});
    setConnections({entry(1, false, false)});
    fake_platform::notifyObservers();
    EXPECT_EQ(owner_.calls, (Calls{"status 0 recheck", "lost", "fresh"}));
}

TEST_F(OrvexNetworkManagerTest, NotificationThatChangesNothingIsToldAllTheSame) {
    start({entry(2, true, false)});
    fake_platform::notifyObservers();
    fake_platform::notifyObservers();
    EXPECT_EQ(owner_.calls, (Calls{"status 1 recheck", "available", "fresh", "status 1 recheck",
                                   "available", "fresh"}));
}

TEST_F(OrvexNetworkManagerTest, LossIsToldAtEveryNotification) {
    start();
    fake_platform::notifyObservers();
    fake_platform::notifyObservers();
    EXPECT_EQ(std::count(owner_.calls.begin(), owner_.calls.end(), "lost"), 2);
}

TEST_F(OrvexNetworkManagerTest, NotificationReadsTheListAnew) {
    start({entry(1, true, false), entry(2, false, true)});
    setConnections({entry(2, true, false)});
    EXPECT_EQ(manager_->currentStatus(), 3U) << "not before the notification";
    fake_platform::notifyObservers();
    EXPECT_EQ(manager_->currentStatus(), 1U);
    EXPECT_FALSE(manager_->hasFlaggedConnection()) << "the old entries are gone";
}

TEST_F(OrvexNetworkManagerTest, RecheckTellsAvailabilityOnly) {
    start({entry(1, true, false)});
    EXPECT_TRUE(manager_->recheck());
    EXPECT_EQ(owner_.calls, Calls{"available"});
}

TEST_F(OrvexNetworkManagerTest, RecheckWithoutConnectionTellsTheLoss) {
    start();
    EXPECT_TRUE(manager_->recheck());
    EXPECT_EQ(owner_.calls, Calls{"lost"});
}

TEST_F(OrvexNetworkManagerTest, EmptyHooksTellNobody) {
    start({entry(1, true, false)});
    manager_->onSecondaryNotification();
    manager_->keepOpen(10);
    manager_->release();
    drainMainContext();
    EXPECT_EQ(owner_.calls, Calls{});
    EXPECT_EQ(manager_->currentStatus(), 3U);
}

TEST_F(OrvexNetworkManagerTest, OwnerMayAskBackInsideACall) {
    start({entry(1, true, false)});
    std::vector<std::uint32_t> seen;
    bool rechecked = false;
    owner_.inside = [&] {
        seen.push_back(manager_->currentStatus());
        EXPECT_TRUE(manager_->hasActiveConnection());
        if (!rechecked) {
            rechecked = true;
            EXPECT_TRUE(manager_->recheck());
        }
    };
    fake_platform::notifyObservers();
    EXPECT_EQ(owner_.calls, (Calls{"status 3 recheck", "available", "available", "fresh"}));
    EXPECT_EQ(seen, std::vector<std::uint32_t>(4, 3U));
}

TEST_F(OrvexNetworkManagerTest, OwnerIsCalledWithoutTheLock) {
    start({entry(1, true, false)});
    int free = 0;
    owner_.inside = [&] { free += isLockFree() ? 1 : 0; };
    fake_platform::notifyObservers();
    EXPECT_EQ(free, 3);
    (void)manager_->recheck();
    EXPECT_EQ(free, 4);
}

TEST_F(OrvexNetworkManagerTest, NotificationOfAForeignThreadIsToldOnTheMainLoop) {
    start();
    setConnections({entry(1, true, false)});
    std::thread([] { fake_platform::notifyObservers(); }).join();
    EXPECT_EQ(owner_.calls, Calls{}) << "not on the foreign thread";
    EXPECT_TRUE(iterateUntil([&] { return owner_.calls.size() == 3; }));
    EXPECT_EQ(owner_.calls, (Calls{"status 3 recheck", "available", "fresh"}));
    EXPECT_EQ(owner_.threads, std::vector<std::thread::id>(3, std::this_thread::get_id()));
}

TEST_F(OrvexNetworkManagerTest, NotificationsOfAForeignThreadAreAllTold) {
    start({entry(1, true, false)});
    std::thread([] {
        for (int number = 0; number < 100; ++number) {
            fake_platform::notifyObservers();
        }
    }).join();
    EXPECT_TRUE(iterateUntil([&] { return owner_.calls.size() == 300; }));
}

TEST_F(OrvexNetworkManagerTest, NotificationsThatOutliveItAreDropped) {
    start({entry(1, true, false)});
    std::thread([] { fake_platform::notifyObservers(); }).join();
    manager_.reset();
    drainMainContext();
    EXPECT_EQ(owner_.calls, Calls{});
}

TEST_F(OrvexNetworkManagerTest, TheWorkerMayAskForTheProxyWhileNotificationsArrive) {
    start({entry(1, true, false)});
    std::atomic<bool> done = false;
    std::thread worker([&] {
        while (!done) {
            (void)manager_->proxyFor();
        }
    });
    for (int round = 0; round < 500; ++round) {
        setConnections(round % 2 == 0 ? std::vector{entry(2, true, true), entry(1, true, false)}
                                      : std::vector<ConnectionInfo>{});
        fake_platform::notifyObservers();
    }
    done = true;
    worker.join();
    EXPECT_EQ(owner_.calls.size(), 1500U);
}

// -- proxy ---------------------------------------------------------------------------------------

static_assert(sizeof(ProxyQuery) == 140);
static_assert(offsetof(ProxyQuery, size) == 0);
static_assert(offsetof(ProxyQuery, host) == 4 && sizeof(ProxyQuery::host) == 132);
static_assert(offsetof(ProxyQuery, port) == 136);

TEST_F(OrvexNetworkManagerTest, ProxyIsHostColonPort) {
    start();
    answerProxy([](ProxyQuery& query) {
        std::strcpy(query.host, "proxy.example"); // NOLINT(*-strcpy)
        query.port = 3128;
    });
    EXPECT_EQ(manager_->proxyFor(), "proxy.example:3128");
}

TEST_F(OrvexNetworkManagerTest, ProxyWithoutPortHas8080) {
    start();
    answerProxy([](ProxyQuery& query) { std::strcpy(query.host, "proxy"); }); // NOLINT(*-strcpy)
    EXPECT_EQ(manager_->proxyFor(), "proxy:8080");
}

TEST_F(OrvexNetworkManagerTest, NoProxyWhenTheLookUpFails) {
    start();
    for (const int result : {1, 2, 3, -1}) {
        fake_platform::change([&](fake_platform::State& state) {
            state.proxy = [result](const std::string& /*url*/, ProxyQuery& query) {
                std::strcpy(query.host, "ignored"); // NOLINT(*-strcpy)
                return result;
            };
        });
        EXPECT_EQ(manager_->proxyFor(), "") << result;
    }
}

TEST_F(OrvexNetworkManagerTest, ProxyIsAskedForTheBuiltInServerUrlWithAPresetQuery) {
    start();
    std::string url;
    ProxyQuery preset{};
    fake_platform::change([&](fake_platform::State& state) {
        state.proxy = [&](const std::string& asked, ProxyQuery& query) {
            url = asked;
            preset = query;
            return trilba::network::kProxyNone;
        };
    });
    EXPECT_EQ(manager_->proxyFor(), "");
    EXPECT_EQ(url, deployment::kServerUrl);
    EXPECT_EQ(preset.size, 140U);
    EXPECT_EQ(preset.port, 8080U);
    EXPECT_TRUE(std::all_of(std::begin(preset.host), std::end(preset.host),
                            [](char byte) { return byte == '\0'; }));
}

TEST_F(OrvexNetworkManagerTest, HostWithoutNulEndsAtItsLastByte) {
    start();
    answerProxy([](ProxyQuery& query) {
        std::memset(query.host, 'h', sizeof query.host);
        query.port = 0x41414141; // as text "AAAA", were it read as the host's continuation
    });
    EXPECT_EQ(manager_->proxyFor(), std::string(132, 'h') + ":1094795585");
}

TEST_F(OrvexNetworkManagerTest, EmptyHostIsAColonAndThePort) {
    start();
    answerProxy([](ProxyQuery& /*query*/) {});
    EXPECT_EQ(manager_->proxyFor(), ":8080");
}

TEST_F(OrvexNetworkManagerTest, PortIsAnUnsignedNumber) {
    start();
    answerProxy([](ProxyQuery& query) {
        query.host[0] = 'p';
        query.port = 4294967295U;
    });
    EXPECT_EQ(manager_->proxyFor(), "p:4294967295");
}

TEST_F(OrvexNetworkManagerTest, ProxyIsLookedUpWithoutTheLock) {
    start();
    bool free = false;
    answerProxy([&](ProxyQuery& /*query*/) { free = isLockFree(); });
    (void)manager_->proxyFor();
    EXPECT_TRUE(free);
}

} // namespace
} // namespace orvexd
