#include "PlatformFixture.h"
#include "trilba/Debug.h"
#include "trilba/core/Directory.h"
#include "trilba/core/ISystemLocationSettings.h"
#include "trilba/core/SystemInfo.h"

#include <atomic>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace trilba::test {

class ThreadsTest : public PlatformFixture {
protected:
    static auto threadCount() {
        return std::distance(fs::directory_iterator("/proc/self/task"), fs::directory_iterator());
    }

    /// Everything but the creation of a manager.
    static void useTheLibrary() {
        Debug::init();
        std::string text;
        core::SystemInfo::getPlatformId(text);
        core::Directory::getPreinstalledFilesPath(text);
        const std::unique_ptr<core::ISystemLocationSettings> settings(
            core::ISystemLocationSettings::create());
        static_cast<void>(settings->isNetworkPositioningPermitted());
    }

    [[noreturn]] void exitWithThreadsFound() {
        const auto before = threadCount();
        useTheLibrary();
        const auto manager = makeManager();
        CountingObserver observer;
        manager->registerObserver(&observer);
        replace(listOf("changed"));
        const bool told = runLoopUntil([&] { return observer.count > 0; });
        std::_Exit(told && threadCount() == before ? 0 : 1);
    }

    /// In a child process, as after daemon(): create a manager and hear of a change.
    [[noreturn]] void exitWithNotificationAfterFork() {
        useTheLibrary();
        if (const pid_t child = fork(); child != 0) {
            int status = -1;
            waitpid(child, &status, 0);
            std::_Exit(WIFEXITED(status) ? WEXITSTATUS(status) : 2);
        }
        const auto manager = makeManager();
        CountingObserver observer;
        manager->registerObserver(&observer);
        replace(listOf("changed"));
        std::_Exit(runLoopUntil([&] { return observer.count > 0; }) ? 0 : 1);
    }
};

// In processes of their own, where no other test has started a thread.
TEST_F(ThreadsTest, NoneIsStarted) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(exitWithThreadsFound(), testing::ExitedWithCode(0), "");
}

TEST_F(ThreadsTest, ProcessMayForkBeforeAManagerIsCreated) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(exitWithNotificationAfterFork(), testing::ExitedWithCode(0), "");
}

/// Threads that ask until they are told to stop, as the worker of a daemon does.
class Askers {
public:
    explicit Askers(const std::function<void()>& ask) {
        for (int i = 0; i < 3; ++i) {
            threads_.emplace_back([this, ask] {
                while (!stop_) {
                    ask();
                }
            });
        }
    }
    Askers(const Askers&) = delete;
    Askers& operator=(const Askers&) = delete;
    ~Askers() {
        stop_ = true;
        for (auto& thread : threads_) {
            thread.join();
        }
    }

private:
    std::atomic<bool> stop_ = false;
    std::vector<std::thread> threads_;
};

class ConcurrencyTest : public ThreadsTest {
protected:
    static std::string version(const std::string& name, int port) {
        return listOf(name) + "Kind=" + std::to_string(port) + "\n[System]\nPlatformId=" + name +
               "\n[Proxy]\nHost=" + name + "\nPort=" + std::to_string(port) + "\n";
    }

    void changeOften() {
        CountingObserver observer;
        manager_->registerObserver(&observer);
        for (int round = 0; round < 10; ++round) {
            replace(round % 2 == 0 ? version("bb", 2222) : version("a", 1111));
            ASSERT_TRUE(runLoopUntil([&] { return observer.count > round; }));
        }
        manager_->unregisterObserver(&observer);
    }

    std::unique_ptr<network::IConnectionManager> manager_;
    std::atomic<int> mixed_ = 0;
    std::atomic<int> asked_ = 0;
};

TEST_F(ConcurrencyTest, AnswersOfOneQuestionComeFromOneStateOfTheFile) {
    write(version("a", 1111));
    manager_ = makeManager();
    {
        const Askers askers([this] {
            network::ProxyQuery query;
            if (manager_->lookUpProxy("https://server.example:443/", &query) != 0 ||
                query.port != (std::string(query.host) == "a" ? 1111U : 2222U)) {
                ++mixed_;
            }
            network::ConnectionInfoContainer list;
            manager_->getConnections(list);
            if (list.size() != 1 || list.at(0).kind != (list.at(0).name == "a" ? 1111 : 2222)) {
                ++mixed_;
            }
            std::string id;
            core::SystemInfo::getPlatformId(id);
            if (id != "a" && id != "bb") {
                ++mixed_;
            }
            ++asked_;
        });
        changeOften();
        EXPECT_TRUE(runLoopUntil([this] { return asked_ > 0; }));
    }
    EXPECT_EQ(mixed_, 0);
}

TEST_F(ConcurrencyTest, DirectoriesMayBeSetAndAskedAtTheSameTime) {
    core::Directory::setPreinstalledFilesPath("/first");
    core::Directory::setDefaultStoragePath("/first", false);
    const Askers askers([this] {
        bool isSet = false;
        std::string storage;
        core::Directory::getDefaultStoragePath(storage, isSet);
        if (core::Directory::getPreinstalledFilesPath().empty() || storage.empty() || !isSet) {
            ++mixed_;
        }
        ++asked_;
    });
    for (int round = 0; round < 1000 || asked_ == 0; ++round) {
        core::Directory::setPreinstalledFilesPath("/directory/" + std::to_string(round));
        core::Directory::setDefaultStoragePath("/storage/" + std::to_string(round), false);
    }
    EXPECT_EQ(mixed_, 0);
}

TEST_F(ConcurrencyTest, ObserversMayComeAndGoOnAnyThread) {
    write(version("a", 1111));
    manager_ = makeManager();
    class Quiet : public network::IConnectionManagerObserver {
        void onConnectionsChanged() override {}
        void onSecondaryNotification() override {}
    } quiet;
    const Askers askers([&] {
        manager_->registerObserver(&quiet);
        manager_->unregisterObserver(&quiet);
        static_cast<void>(manager_->hasActiveConnection());
    });
    changeOften();
}

} // namespace trilba::test
