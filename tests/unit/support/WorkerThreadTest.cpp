#include "support/Threads.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <string>

namespace orvexd {
namespace {

/// What the thread writes is read after the join only: no lock.
struct Work {
    static gpointer entry(gpointer work) noexcept {
        auto& self = *static_cast<Work*>(work);
        char name[16] = {}; // NOLINT(*-avoid-c-arrays)
        pthread_getname_np(pthread_self(), name, sizeof name);
        self.threadName = name;
        ++self.runs;
        return nullptr;
    }

    int runs = 0;
    std::string threadName;
};

TEST(WorkerThread, HoldsNoThreadInTheBeginning) {
    WorkerThread thread;
    EXPECT_FALSE(thread.isJoinable());
    thread.join();
    EXPECT_FALSE(thread.isJoinable());
}

TEST(WorkerThread, RunsItsEntryUnderItsName) {
    Work work;
    WorkerThread thread;
    ASSERT_TRUE(thread.start("HttpClient", Work::entry, &work));
    EXPECT_TRUE(thread.isJoinable());
    thread.join();
    EXPECT_EQ(work.runs, 1);
    EXPECT_EQ(work.threadName, "HttpClient");
}

TEST(WorkerThread, HoldsNothingAfterTheJoin) {
    Work work;
    WorkerThread thread;
    ASSERT_TRUE(thread.start("worker", Work::entry, &work));
    thread.join();
    EXPECT_FALSE(thread.isJoinable());
    thread.join();
    EXPECT_EQ(work.runs, 1);
}

TEST(WorkerThread, StartJoinsTheThreadBefore) {
    Work work;
    WorkerThread thread;
    for (int round = 0; round < 50; ++round) {
        ASSERT_TRUE(thread.start("worker", Work::entry, &work));
    }
    thread.join();
    EXPECT_EQ(work.runs, 50);
}

TEST(WorkerThread, IsJoinedWhenItGoesOutOfScope) {
    Work work;
    {
        WorkerThread thread;
        ASSERT_TRUE(thread.start("worker", Work::entry, &work));
    }
    EXPECT_EQ(work.runs, 1);
}

} // namespace
} // namespace orvexd
