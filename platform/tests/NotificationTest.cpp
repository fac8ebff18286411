// Who is told, on which thread, and who is not told any more.

#include "PlatformFixture.h"

namespace trilba::test {

class NotificationTest : public PlatformFixture {
protected:
    NotificationTest() {
        write(listOf("first"));
        manager_ = makeManager();
    }

    /// Changes the file and waits until `observer` has heard of it and nothing more is waiting.
    void changeAndAwait(const CountingObserver& observer) {
        const int before = observer.count;
        replace(listOf("changed"));
        ASSERT_TRUE(runLoopUntil([&] { return observer.count > before; }));
        while (g_main_context_iteration(nullptr, FALSE) != FALSE) {
        }
    }

    std::unique_ptr<network::IConnectionManager> manager_;
    CountingObserver observer_;
};

TEST_F(NotificationTest, ComesOnTheThreadOfTheLoop) {
    manager_->registerObserver(&observer_);
    changeAndAwait(observer_);
    EXPECT_EQ(observer_.thread, std::this_thread::get_id());
}

TEST_F(NotificationTest, ComesWithinOneSecond) {
    manager_->registerObserver(&observer_);
    replace(listOf("changed"));
    EXPECT_TRUE(runLoopUntil([&] { return observer_.count > 0; }, std::chrono::seconds(1)));
}

TEST_F(NotificationTest, ComesAlsoWhenTheListIsTheSame) {
    manager_->registerObserver(&observer_);
    replace(listOf("first"));
    EXPECT_TRUE(runLoopUntil([&] { return observer_.count > 0; }));
    EXPECT_EQ(firstName(*manager_), "first");
}

TEST_F(NotificationTest, ComesAlsoWhenTheFileIsBadAndTheListStays) {
    manager_->registerObserver(&observer_);
    replace("garbage");
    EXPECT_TRUE(runLoopUntil([&] { return observer_.count > 0; }));
    EXPECT_EQ(firstName(*manager_), "first");
}

TEST_F(NotificationTest, ListChangesTogetherWithTheNotification) {
    std::string seen;
    observer_.then = [&] { seen = firstName(*manager_); };
    manager_->registerObserver(&observer_);
    replace(listOf("changed"));
    EXPECT_EQ(firstName(*manager_), "first");
    EXPECT_TRUE(runLoopUntil([&] { return observer_.count > 0; }));
    EXPECT_EQ(seen, "changed");
}

TEST_F(NotificationTest, SecondaryNotificationIsNeverUsed) {
    manager_->registerObserver(&observer_);
    changeAndAwait(observer_);
    EXPECT_EQ(observer_.secondary, 0);
}

TEST_F(NotificationTest, ObserverRegisteredTwiceIsToldOnce) {
    CountingObserver twice;
    manager_->registerObserver(&twice);
    manager_->registerObserver(&twice);
    manager_->registerObserver(&observer_);
    std::string order;
    twice.then = [&] { order += 't'; };
    observer_.then = [&] { order += 'o'; };
    changeAndAwait(observer_);
    EXPECT_EQ(order.substr(0, 2), "to");
    EXPECT_EQ(twice.count, observer_.count);
}

TEST_F(NotificationTest, NullObserverIsIgnored) {
    manager_->registerObserver(nullptr);
    manager_->unregisterObserver(nullptr);
    manager_->registerObserver(&observer_);
    changeAndAwait(observer_);
    EXPECT_GT(observer_.count, 0);
}

TEST_F(NotificationTest, UnregisteredObserverIsNotTold) {
    CountingObserver gone;
    manager_->registerObserver(&gone);
    manager_->registerObserver(&observer_);
    manager_->unregisterObserver(&gone);
    changeAndAwait(observer_);
    EXPECT_EQ(gone.count, 0);
}

TEST_F(NotificationTest, ObserverMayUnregisterItselfWhileItIsTold) {
    CountingObserver once;
    once.then = [&] { manager_->unregisterObserver(&once); };
    manager_->registerObserver(&once);
    manager_->registerObserver(&observer_);
    changeAndAwait(observer_);
    changeAndAwait(observer_);
    EXPECT_EQ(once.count, 1);
}

TEST_F(NotificationTest, ObserverUnregisteredByAnEarlierOneIsNotToldAnyMore) {
    CountingObserver later;
    observer_.then = [&] { manager_->unregisterObserver(&later); };
    manager_->registerObserver(&observer_);
    manager_->registerObserver(&later);
    changeAndAwait(observer_);
    EXPECT_EQ(later.count, 0);
}

TEST_F(NotificationTest, ObserverRegisteredWhileAnotherIsToldHearsOfTheNextChange) {
    CountingObserver late;
    observer_.then = [&] { manager_->registerObserver(&late); };
    manager_->registerObserver(&observer_);
    replace(listOf("changed"));
    ASSERT_TRUE(runLoopUntil([&] { return observer_.count > 0; }));
    EXPECT_EQ(late.count, 0);
    changeAndAwait(late);
    EXPECT_GT(late.count, 0);
}

TEST_F(NotificationTest, ObserverMayDeleteTheManager) {
    CountingObserver later;
    observer_.then = [&] { manager_.reset(); };
    manager_->registerObserver(&observer_);
    manager_->registerObserver(&later);
    changeAndAwait(observer_);
    EXPECT_EQ(observer_.count, 1);
    EXPECT_EQ(later.count, 0);
}

TEST_F(NotificationTest, DeletedManagerTellsNothingThatWasOnItsWay) {
    const auto witness = makeManager();
    witness->registerObserver(&observer_);
    CountingObserver orphan;
    manager_->registerObserver(&orphan);
    replace(listOf("changed"));
    // One dispatch: the change is known and waits for its quiet time when the manager goes.
    int looks = 0;
    ASSERT_TRUE(runLoopUntil([&] { return ++looks > 1; }));
    manager_.reset();
    const int toldBefore = orphan.count;
    changeAndAwait(observer_);
    EXPECT_EQ(orphan.count, toldBefore);
}

TEST_F(NotificationTest, EveryManagerTellsItsOwnObservers) {
    const auto other = makeManager();
    CountingObserver otherObserver;
    manager_->registerObserver(&observer_);
    other->registerObserver(&otherObserver);
    replace(listOf("changed"));
    EXPECT_TRUE(runLoopUntil([&] { return observer_.count > 0 && otherObserver.count > 0; }));
}

TEST_F(NotificationTest, LoopRunInsideANotificationHearsOfTheNextChange) {
    manager_->registerObserver(&observer_);
    bool heardInside = false;
    observer_.then = [&] {
        observer_.then = nullptr;
        replace(listOf("again"));
        heardInside = runLoopUntil([&] { return firstName(*manager_) == "again"; });
    };
    replace(listOf("changed"));
    EXPECT_TRUE(runLoopUntil([&] { return observer_.count > 1; }));
    EXPECT_TRUE(heardInside);
}

} // namespace trilba::test
