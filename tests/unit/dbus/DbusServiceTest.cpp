#include "dbus/DbusService.h"

#include "config/ConfHandler.h"
#include "fakes/FakePlatform.h"

#include <gtest/gtest.h>
#include <string>

namespace orvexd {
namespace {

class NoMainLoop : public IMainLoop {
public:
    bool init(int /*argc*/, char** /*argv*/) override { return false; }
    void deinit() override {}
    int run() override { return 1; }
    void quit() override {}
    DbusService* getService() override { return nullptr; }
    bool checkEnvironment() override { return false; }
};

class ShutdownDelay : public testing::Test {
protected:
    ShutdownDelay() {
        fake_platform::reset();
        ConfHandler::confItems().clear();
    }
    ~ShutdownDelay() override { ConfHandler::confItems().clear(); }
    ShutdownDelay(const ShutdownDelay&) = delete;
    ShutdownDelay& operator=(const ShutdownDelay&) = delete;

    /// Seconds that a service takes from this value in the file store.
    static long of(const std::string& value) {
        ConfHandler::setParameter("daemon_shutdown_delay", value);
        return made();
    }

    static long made() {
        NoMainLoop mainLoop;
        return static_cast<long>(DbusService(mainLoop).shutdownDelay().count());
    }
};

TEST_F(ShutdownDelay, Is60WithoutAValue) {
    EXPECT_EQ(made(), 60);
}

TEST_F(ShutdownDelay, IsTakenFromTheFileStore) {
    EXPECT_EQ(of("1"), 1);
    EXPECT_EQ(of("5"), 5);
    EXPECT_EQ(of("3600"), 3600);
}

TEST_F(ShutdownDelay, ValueBelow1Keeps60) {
    EXPECT_EQ(of("0"), 60);
    EXPECT_EQ(of("-1"), 60);
    EXPECT_EQ(of("-100000"), 60);
}

TEST_F(ShutdownDelay, WordThatIsNoNumberKeeps60) {
    EXPECT_EQ(of("soon"), 60);
    EXPECT_EQ(of(""), 60);
}

TEST_F(ShutdownDelay, NumberBeyondEveryRangeKeeps60) {
    EXPECT_EQ(of("2147483647"), 2147483647);
    EXPECT_EQ(of("2147483648"), 60);
    EXPECT_EQ(of("99999999999999999999999999"), 60);
}

TEST_F(ShutdownDelay, ValueStoredLaterDoesNotReachTheService) {
    NoMainLoop mainLoop;
    const DbusService service(mainLoop);
    ConfHandler::setParameter("daemon_shutdown_delay", "5");
    EXPECT_EQ(service.shutdownDelay().count(), 60);
}

} // namespace
} // namespace orvexd
