#include "main/MainLoop.h"

#include "fakes/FakeBus.h"
#include "fakes/FakePlatform.h"
#include "fakes/MainContext.h"
#include "main/ChildProcess.h"

#include <array>
#include <chrono>
#include <cstdlib>
#include <gtest/gtest.h>
#include <optional>
#include <string>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>
#include <utility>
#include <vector>

namespace orvexd {
namespace {

/// Users that the process seems to have; unset: those it has.
struct Users {
    std::optional<uid_t> real;
    std::optional<uid_t> effective;
};

Users users;

} // namespace
} // namespace orvexd

// They stand in front of the C library's.

#ifdef SYS_getuid32
#define ORVEXD_TEST_GETUID SYS_getuid32
#define ORVEXD_TEST_GETEUID SYS_geteuid32
#else
#define ORVEXD_TEST_GETUID SYS_getuid
#define ORVEXD_TEST_GETEUID SYS_geteuid
#endif

extern "C" uid_t getuid() noexcept {
    return orvexd::users.real.value_or(static_cast<uid_t>(syscall(ORVEXD_TEST_GETUID)));
}

extern "C" uid_t geteuid() noexcept {
    return orvexd::users.effective.value_or(static_cast<uid_t>(syscall(ORVEXD_TEST_GETEUID)));
}

namespace orvexd {
namespace {

constexpr std::array kVariables = {"KELVRA_UNIQUE_DEVICE_ID", "KELVRA_IMEI_FRAGMENT",
                                   "KELVRA_DEVICE_MANUFACTURER", "KELVRA_DEVICE_FIRMWARE_VERSION",
                                   "KELVRA_DEVICE_TERMINAL_MODEL"};

constexpr uid_t kRoot = 0;
constexpr uid_t kNobody = 65534;

/// A root process with a complete environment, whoever runs the tests.
class MainLoopTest : public testing::Test {
protected:
    MainLoopTest() {
        fake_platform::reset();
        for (const char* variable : kVariables) {
            setenv(variable, "x", 1);
        }
        users = {kRoot, kRoot};
    }
    ~MainLoopTest() override {
        users = {};
        for (const char* variable : kVariables) {
            unsetenv(variable);
        }
    }
    MainLoopTest(const MainLoopTest&) = delete;
    MainLoopTest& operator=(const MainLoopTest&) = delete;

    MainLoop mainLoop_;
};

TEST_F(MainLoopTest, InstanceIsOneForTheProcess) {
    EXPECT_EQ(&MainLoop::getInstance(), &MainLoop::getInstance());
}

TEST_F(MainLoopTest, ManyThreadsGetTheSameInstance) {
    std::array<MainLoop*, 4> instances{};
    std::vector<std::thread> threads;
    for (MainLoop*& instance : instances) {
        threads.emplace_back([&instance] { instance = &MainLoop::getInstance(); });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    for (const MainLoop* instance : instances) {
        EXPECT_EQ(instance, &MainLoop::getInstance());
    }
}

// -- preconditions -------------------------------------------------------------------------------

TEST_F(MainLoopTest, RootWithAllVariablesMayStart) {
    EXPECT_TRUE(mainLoop_.checkEnvironment());
}

TEST_F(MainLoopTest, EachMissingVariablePreventsTheStart) {
    for (const char* variable : kVariables) {
        unsetenv(variable);
        EXPECT_FALSE(mainLoop_.checkEnvironment()) << variable;
        setenv(variable, "x", 1);
    }
    EXPECT_TRUE(mainLoop_.checkEnvironment());
}

TEST_F(MainLoopTest, EachEmptyVariablePreventsTheStart) {
    for (const char* variable : kVariables) {
        setenv(variable, "", 1);
        EXPECT_FALSE(mainLoop_.checkEnvironment()) << variable;
        setenv(variable, "x", 1);
    }
}

TEST_F(MainLoopTest, ValuesOfTheVariablesDoNotMatter) {
    for (const char* value : {" ", "0", "\n", "\xFF"}) {
        for (const char* variable : kVariables) {
            setenv(variable, value, 1);
        }
        EXPECT_TRUE(mainLoop_.checkEnvironment());
    }
}

TEST_F(MainLoopTest, OtherRealUserPreventsTheStart) {
    users.real = kNobody;
    EXPECT_FALSE(mainLoop_.checkEnvironment());
}

TEST_F(MainLoopTest, OtherEffectiveUserPreventsTheStart) {
    users.effective = kNobody;
    EXPECT_FALSE(mainLoop_.checkEnvironment());
}

TEST_F(MainLoopTest, ProcessOfAnotherUserMayNotStart) {
    const test::Ending ending = test::runInChild([&](int /*report*/) {
        users = {}; // the true ones
        if (geteuid() == kRoot && setresuid(kNobody, kNobody, kNobody) != 0) {
            return 2;
        }
        return mainLoop_.checkEnvironment() ? 1 : 0;
    });
    EXPECT_EQ(ending.status, 0);
}

// -- life ----------------------------------------------------------------------------------------

TEST_F(MainLoopTest, HasNoServiceBeforeInit) {
    EXPECT_EQ(mainLoop_.getService(), nullptr);
}

TEST_F(MainLoopTest, RunBeforeInitReturns1) {
    EXPECT_EQ(mainLoop_.run(), 1);
}

TEST_F(MainLoopTest, QuitAndDeinitBeforeInitDoNothing) {
    mainLoop_.quit();
    mainLoop_.deinit();
    EXPECT_EQ(mainLoop_.getService(), nullptr);
    EXPECT_EQ(mainLoop_.run(), 1);
}

TEST_F(MainLoopTest, InitCreatesNothingWhenAPreconditionFails) {
    unsetenv("KELVRA_IMEI_FRAGMENT");
    EXPECT_FALSE(mainLoop_.init(0, nullptr));
    EXPECT_EQ(mainLoop_.getService(), nullptr);
    EXPECT_EQ(fake_platform::liveObjects(), 0);
    EXPECT_EQ(mainLoop_.run(), 1);
}

TEST_F(MainLoopTest, InitWithoutABusFailsSilentlyAndLeavesNoService) {
    const test::Ending ending = test::runInChild([&](int report) {
        dup2(report, STDOUT_FILENO);
        dup2(report, STDERR_FILENO);
        users = {};
        users.real = users.effective = kRoot;
        setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent/bus", 1);
        if (mainLoop_.init(0, nullptr)) {
            return 1;
        }
        if (mainLoop_.getService() != nullptr || fake_platform::liveObjects() != 0) {
            return 2;
        }
        return mainLoop_.run() == 1 ? 0 : 3;
    });
    EXPECT_EQ(ending.status, 0);
    EXPECT_EQ(ending.report, "");
}

class ServingMainLoop : public MainLoopTest {
protected:
    ~ServingMainLoop() override {
        mainLoop_.deinit();
        test::drainMainContext();
    }

    /// Runs the loop until a source of it asks it to quit.
    int runUntilQuit() {
        const test::ScopedTimer quitter(
            std::chrono::milliseconds(0),
            [](gpointer fixture) -> gboolean {
                auto& self = *static_cast<ServingMainLoop*>(fixture);
                ++self.asked_;
                self.mainLoop_.quit();
                return G_SOURCE_CONTINUE;
            },
            this);
        return mainLoop_.run();
    }

    fake_bus::FakeBus bus_;
    int asked_ = 0; ///< how often the loop was asked to quit
};

TEST_F(ServingMainLoop, InitCreatesTheServiceAndPutsItOnTheBus) {
    EXPECT_TRUE(mainLoop_.init(0, nullptr));
    EXPECT_NE(mainLoop_.getService(), nullptr);
    EXPECT_NE(bus_.filter, nullptr);
}

TEST_F(ServingMainLoop, SecondInitChangesNothing) {
    mainLoop_.init(0, nullptr);
    const DbusService* service = mainLoop_.getService();
    bus_.calls.clear();
    unsetenv("KELVRA_IMEI_FRAGMENT"); // not looked at any more
    EXPECT_TRUE(mainLoop_.init(0, nullptr));
    EXPECT_EQ(mainLoop_.getService(), service);
    EXPECT_TRUE(bus_.calls.empty());
}

TEST_F(ServingMainLoop, InitWithoutTheNameLeavesNoService) {
    bus_.nameReply = DBUS_REQUEST_NAME_REPLY_EXISTS;
    EXPECT_FALSE(mainLoop_.init(0, nullptr));
    EXPECT_EQ(mainLoop_.getService(), nullptr);
    EXPECT_EQ(fake_platform::liveObjects(), 0);
    EXPECT_EQ(mainLoop_.run(), 1);
}

TEST_F(ServingMainLoop, RunsUntilItIsAskedToQuit) {
    mainLoop_.init(0, nullptr);
    EXPECT_EQ(runUntilQuit(), 0);
    EXPECT_EQ(asked_, 1) << "it returned before";
}

TEST_F(ServingMainLoop, RunsAgainAfterItsEnd) {
    mainLoop_.init(0, nullptr);
    runUntilQuit();
    mainLoop_.quit(); // nothing runs: nothing to stop, not even the next run
    EXPECT_EQ(runUntilQuit(), 0);
}

TEST_F(ServingMainLoop, QuitOfTheServiceEndsTheRun) {
    mainLoop_.init(0, nullptr);
    const test::ScopedTimer quitter(
        std::chrono::milliseconds(0),
        [](gpointer bus) -> gboolean {
            static_cast<fake_bus::FakeBus*>(bus)->receive(*fake_bus::call("quit"));
            return G_SOURCE_CONTINUE;
        },
        &bus_);
    EXPECT_EQ(mainLoop_.run(), 0);
}

TEST_F(ServingMainLoop, DeinitDestroysTheService) {
    mainLoop_.init(0, nullptr);
    mainLoop_.deinit();
    EXPECT_EQ(mainLoop_.getService(), nullptr);
    EXPECT_EQ(fake_platform::liveObjects(), 0);
    EXPECT_EQ(mainLoop_.run(), 1) << "not initialised any more";
}

TEST_F(ServingMainLoop, MayBeInitialisedAgainAfterDeinit) {
    mainLoop_.init(0, nullptr);
    mainLoop_.deinit();
    EXPECT_TRUE(mainLoop_.init(0, nullptr));
    EXPECT_EQ(runUntilQuit(), 0);
}

} // namespace
} // namespace orvexd
