#include "core/GatewayFixture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace orvexd::test {
namespace {

using std::chrono::milliseconds;
using testing::ElementsAre;
using testing::IsEmpty;

class OrvexMainShutdownTest : public GatewayTest {
protected:
    OrvexMainShutdownTest() {
        fake_platform::connect(1);
        (void)open();
    }
};

TEST_F(OrvexMainShutdownTest, ForgetsConnectionsAndRequests) {
    attach(1);
    gateway().shutdown();
    EXPECT_EQ(gateway().sendData("x", true, 1, 1), 1001);
    EXPECT_EQ(thrownBy([this] { gateway().getData(1, 1); }), 41);
    EXPECT_EQ(thrownBy([this] { attach(1); }), 1001);
}

TEST_F(OrvexMainShutdownTest, MayBeRepeated) {
    gateway().shutdown();
    gateway().shutdown();
    EXPECT_EQ(fake_threads::joined(), 0);
}

TEST_F(OrvexMainShutdownTest, StartsNoExchangeAnyMore) {
    gateway().shutdown();
    EXPECT_FALSE(gateway().startExchange());
    const auto connection = open();
    EXPECT_EQ(thrownBy([&] { prepare(connection); }), 2204);
    fake_platform::notifyObservers();
    EXPECT_EQ(fake_threads::started(), 0);
}

TEST_F(OrvexMainShutdownTest, EndsARunningExchange) {
    holdExchange([](fake_curl::Transfer& transfer) {
        EXPECT_TRUE(transfer.read().aborted);
        return CURLE_ABORTED_BY_CALLBACK;
    });
    prepare(1);
    reachExchange();
    // The worker is let go on when the main thread is about to wait for it.
    std::thread helper([this] {
        EXPECT_TRUE(spinUntil([] { return fake_threads::joined() == 1; }));
        proceed_.open();
    });
    gateway().shutdown();
    helper.join();
    EXPECT_FALSE(gateway().isTransferRunning());
    EXPECT_EQ(fake_threads::joined(), 1);
    drainMainContext();
    EXPECT_THAT(service_.only("error"), IsEmpty()); // the main loop is about to stop
}

TEST_F(OrvexMainShutdownTest, CancelsAWorkerThatHasNotTakenItsFirstStep) {
    fake_threads::holdUntilJoined(true);
    bool aborted = false;
    fake_curl::addScript([&](fake_curl::Transfer& transfer) {
        aborted = transfer.read().aborted;
        return CURLE_ABORTED_BY_CALLBACK;
    });
    prepare(1);
    gateway().shutdown();
    EXPECT_TRUE(aborted);
    EXPECT_EQ(fake_threads::joined(), 1);
    EXPECT_FALSE(gateway().isTransferRunning());
}

TEST_F(OrvexMainShutdownTest, JoinsAWorkerThatIsAtItsEnd) {
    answerExchange(1);
    prepare(1);
    awaitOutcome(); // the flag is down, the end has not been dealt with
    gateway().shutdown();
    EXPECT_EQ(fake_threads::joined(), 1);
    passTime(milliseconds(60)); // and its late end finds nothing to do
    EXPECT_EQ(fake_threads::started(), 1);
}

TEST_F(OrvexMainShutdownTest, DoesNotWaitForAClientToFetch) {
    MemoryBudget& budget = MemoryBudget::process();
    budget.resize(budget.held() + 64 * 1024);
    fake_curl::addScript([this](fake_curl::Transfer& transfer) {
        std::string body;
        EXPECT_TRUE(transfer.readAll(body));
        const std::string whole = answerBody(1);
        transfer.respond("HTTP/1.1 200 OK\r\n"
                         "Content-Type: multipart/related; boundary=\"b\"; start=\"head\"\r\n\r\n",
                         {whole.substr(0, whole.rfind("\r\n--b--"))});
        fake_threads::beforeNextWait([this] { arrived_.open(); });
        for (int piece = 0; piece < 64; ++piece) {
            (void)transfer.write(std::string(16 * 1024, 'x'));
        }
        return CURLE_OK;
    });
    prepare(1);
    reachExchange();
    const gint64 begin = g_get_monotonic_time();
    gateway().shutdown();
    EXPECT_LT(g_get_monotonic_time() - begin, 30 * G_USEC_PER_SEC); // the transfer has 60 s
    budget.resize(deployment::kMemoryBudget);
}

TEST_F(OrvexMainShutdownTest, LastsUntilTheWaitForAClientEnds) {
    HttpClient::setParameter("orvexd/wait_timeout/slow", "200");
    service_.onRequestData = nullptr;
    const auto connection = open(1024, "slow");
    gint64 waited = 0;
    fake_curl::addScript([&](fake_curl::Transfer& transfer) {
        (void)transfer.read();
        const gint64 start = g_get_monotonic_time();
        EXPECT_TRUE(transfer.read().aborted);
        waited = g_get_monotonic_time() - start;
        return CURLE_ABORTED_BY_CALLBACK;
    });
    prepare(connection);
    // The announcement is made with the data mutex held: cancelling has to wait for the wait.
    ASSERT_TRUE(iterateUntil([this] { return service_.count("status 3") == 2; }));
    gateway().shutdown();
    EXPECT_GE(waited, 200000);
}

TEST_F(OrvexMainShutdownTest, IsDoneByTheDestructorToo) {
    fake_threads::holdUntilJoined(true);
    bool aborted = false;
    fake_curl::addScript([&](fake_curl::Transfer& transfer) {
        aborted = transfer.read().aborted;
        return CURLE_ABORTED_BY_CALLBACK;
    });
    prepare(1);
    gateway_.reset();
    EXPECT_TRUE(aborted);
    EXPECT_EQ(fake_threads::joined(), 1);
    EXPECT_EQ(fake_curl::globalBalance(), 0);
}

TEST_F(OrvexMainShutdownTest, LeavesNoPostThatFindsTheCoreGone) {
    failExchange();
    prepare(1); // posts the status, too
    gateway_.reset();
    passTime(milliseconds(60));
    EXPECT_THAT(service_.log, IsEmpty());
}

TEST_F(OrvexMainShutdownTest, LeavesNoTimerThatFindsTheCoreGone) {
    failExchange();
    prepare(1);
    awaitOutcome();
    service_.log.clear();
    gateway_.reset();
    passTime(milliseconds(60));
    EXPECT_THAT(service_.log, IsEmpty());
}

TEST_F(OrvexMainShutdownTest, EndsTheNotificationsOfThePlatform) {
    EXPECT_EQ(fake_platform::observerCount(), 1U);
    gateway_.reset();
    EXPECT_EQ(fake_platform::observerCount(), 0U);
    EXPECT_EQ(fake_platform::liveObjects(), 0);
}

TEST_F(OrvexMainShutdownTest, DropsANotificationThatIsStillOnItsWay) {
    std::thread platform(fake_platform::notifyObservers);
    platform.join();
    gateway_.reset();
    drainMainContext();
    EXPECT_THAT(service_.log, IsEmpty());
}

TEST_F(OrvexMainShutdownTest, MayFollowEveryStepOfAnExchange) {
    // Wherever the worker happens to be: it is joined, and nothing is left behind.
    for (int round = 0; round < 50; ++round) {
        answerExchange(1);
        const auto connection = open();
        prepare(connection);
        for (int step = 0; step < round; ++step) {
            g_main_context_iteration(nullptr, FALSE);
        }
        gateway_.reset();
        EXPECT_EQ(fake_curl::liveHandles(), 0);
        fake_curl::reset();
    }
    EXPECT_EQ(fake_threads::started(), fake_threads::joined());
}

} // namespace
} // namespace orvexd::test
