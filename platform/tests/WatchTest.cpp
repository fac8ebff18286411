// Every way in which the file can change is noticed, and nothing runs while it does not.

#include "PlatformFixture.h"

#include <algorithm>
#include <vector>

namespace trilba::test {

class WatchTest : public PlatformFixture {
protected:
    void start() {
        manager_ = makeManager();
        manager_->registerObserver(&observer_);
    }

    bool becomes(const std::string& name) {
        return runLoopUntil([&] { return firstName(*manager_) == name; }, std::chrono::seconds(3));
    }

    /// Changes the file; time until it is told.
    std::chrono::steady_clock::duration timeToNotify() {
        const auto start = std::chrono::steady_clock::now();
        const int before = observer_.count;
        replace(listOf("b"));
        EXPECT_TRUE(runLoopUntil([&] { return observer_.count > before; }));
        return std::chrono::steady_clock::now() - start;
    }

    CountingObserver observer_;
    std::unique_ptr<network::IConnectionManager> manager_;
};

TEST_F(WatchTest, FileWrittenInPlace) {
    write(listOf("a"));
    start();
    write(listOf("b"));
    EXPECT_TRUE(becomes("b"));
}

TEST_F(WatchTest, FileReplacedByRename) {
    write(listOf("a"));
    start();
    replace(listOf("b"));
    EXPECT_TRUE(becomes("b"));
    replace(listOf("c"));
    EXPECT_TRUE(becomes("c"));
}

TEST_F(WatchTest, FileWrittenInPlaceAfterARename) {
    write(listOf("a"));
    start();
    replace(listOf("b"));
    EXPECT_TRUE(becomes("b"));
    write(listOf("c"));
    EXPECT_TRUE(becomes("c"));
}

TEST_F(WatchTest, FileCreatedLater) {
    start();
    write(listOf("a"));
    EXPECT_TRUE(becomes("a"));
}

TEST_F(WatchTest, FileRemovedAndCreatedAgain) {
    write(listOf("a"));
    start();
    fs::remove(file_);
    EXPECT_TRUE(becomes(""));
    write(listOf("b"));
    EXPECT_TRUE(becomes("b"));
}

TEST_F(WatchTest, FileMovedAwayAndBack) {
    write(listOf("a"));
    start();
    fs::rename(file_, directory_ / "aside");
    EXPECT_TRUE(becomes(""));
    fs::rename(directory_ / "aside", file_);
    EXPECT_TRUE(becomes("a"));
}

TEST_F(WatchTest, FileWhoseWriterKeepsItOpen) {
    write(listOf("a"));
    start();
    std::ofstream writer(file_, std::ios::trunc);
    writer << listOf("b") << std::flush;
    EXPECT_TRUE(becomes("b"));
    writer << "[Connection c]\n# " << std::flush;
    writer.seekp(0);
    writer << listOf("c") << std::flush;
    EXPECT_TRUE(becomes("c"));
}

TEST_F(WatchTest, DirectoriesCreatedLater) {
    useFile(directory_ / "deep" / "deeper" / "platform.conf");
    start();
    fs::create_directory(directory_ / "deep");
    ASSERT_TRUE(runLoopUntil([&] { return observer_.count > 0; }));
    fs::create_directory(directory_ / "deep" / "deeper");
    write(listOf("a"));
    EXPECT_TRUE(becomes("a"));
    write(listOf("b"));
    EXPECT_TRUE(becomes("b"));
}

TEST_F(WatchTest, DirectoryRemovedAndCreatedAgain) {
    useFile(directory_ / "deep" / "platform.conf");
    fs::create_directory(directory_ / "deep");
    write(listOf("a"));
    start();
    fs::remove_all(directory_ / "deep");
    fs::create_directory(directory_ /
                         "deep"); // at once: the name is there again when it is noticed
    EXPECT_TRUE(becomes(""));
    write(listOf("b"));
    EXPECT_TRUE(becomes("b"));
}

TEST_F(WatchTest, DirectoryMovedAwayAndReplaced) {
    useFile(directory_ / "deep" / "platform.conf");
    fs::create_directory(directory_ / "deep");
    write(listOf("a"));
    start();
    fs::rename(directory_ / "deep", directory_ / "aside");
    EXPECT_TRUE(becomes(""));
    writeTo(directory_ / "aside" / "platform.conf", listOf("b"));
    fs::rename(directory_ / "aside", directory_ / "deep");
    EXPECT_TRUE(becomes("b"));
}

TEST_F(WatchTest, FileBehindALinkWrittenInPlace) {
    fs::create_directory(directory_ / "real");
    writeTo(directory_ / "real" / "target", listOf("a"));
    fs::create_symlink("real/target", file_);
    start();
    writeTo(directory_ / "real" / "target", listOf("b"));
    EXPECT_TRUE(becomes("b"));
}

TEST_F(WatchTest, LinkOnTheWayExchanged) {
    for (const std::string version : {"one", "two"}) {
        fs::create_directory(directory_ / version);
        writeTo(directory_ / version / "platform.conf", listOf(version));
    }
    fs::create_symlink("one", directory_ / "data");
    fs::create_symlink("data/platform.conf", file_);
    start();
    EXPECT_EQ(firstName(*manager_), "one");
    fs::create_symlink("two", directory_ / "data.new");
    fs::rename(directory_ / "data.new", directory_ / "data");
    EXPECT_TRUE(becomes("two"));
    writeTo(directory_ / "two" / "platform.conf", listOf("three"));
    EXPECT_TRUE(becomes("three"));
}

TEST_F(WatchTest, RelativePathIsTakenAgainstTheWorkingDirectory) {
    const fs::path before = fs::current_path();
    fs::current_path(directory_);
    useFile("./x/../platform.conf");
    fs::create_directory("x");
    write(listOf("a"));
    start();
    EXPECT_EQ(firstName(*manager_), "a");
    replace(listOf("b"));
    EXPECT_TRUE(becomes("b"));
    fs::current_path(before);
}

TEST_F(WatchTest, TextOfTheLastOfManyQuickWritesWins) {
    write(listOf("a"));
    start();
    for (int round = 0; round < 200; ++round) {
        (round % 2 == 0) ? write(listOf(std::to_string(round)))
                         : replace(listOf(std::to_string(round)));
        g_main_context_iteration(nullptr, FALSE);
    }
    write(listOf("last"));
    EXPECT_TRUE(becomes("last"));
}

TEST_F(WatchTest, FileThatNeverComesToRestIsReadAllTheSame) {
    write(listOf("a"));
    start();
    int round = 0;
    const auto rewrite = [&] {
        replace(listOf(std::to_string(++round)));
        return observer_.count > 0;
    };
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(1);
    bool told = false;
    while (!told && std::chrono::steady_clock::now() < deadline) {
        told = runLoopUntil(rewrite, std::chrono::milliseconds(5));
    }
    EXPECT_TRUE(told);
}

TEST_F(WatchTest, QuietTimeIsKeptAlsoWhenEarlierChangesAreLongTold) {
    using namespace std::chrono_literals;
    write(listOf("a"));
    start();
    auto spent = 0ns;
    while (spent < 400ms) { // beyond the longest delay of the first change
        spent += timeToNotify();
    }
    EXPECT_GE(std::max({timeToNotify(), timeToNotify(), timeToNotify()}), 50ms);
}

TEST_F(WatchTest, TruncatedFileIsNotTakenForAnEmptyOneAtOnce) {
    write(listOf("a"));
    start();
    observer_.then = [&] { EXPECT_NE(firstName(*manager_), ""); };
    std::ofstream writer(file_, std::ios::trunc);
    ASSERT_TRUE(runLoopUntil([&] { return observer_.count > 0; }));
    writer << listOf("b") << std::flush;
    EXPECT_TRUE(becomes("b"));
}

TEST_F(WatchTest, FileThatStaysEmptyMeansDefaultsWithinOneSecond) {
    write(listOf("a"));
    start();
    write("");
    EXPECT_TRUE(
        runLoopUntil([&] { return firstName(*manager_).empty(); }, std::chrono::seconds(1)));
}

TEST_F(WatchTest, FileEmptyAtTheStartIsLookedAtAgain) {
    write("");
    start();
    EXPECT_TRUE(runLoopUntil([&] { return observer_.count > 0; }));
}

TEST_F(WatchTest, DirectoryInPlaceOfTheFileLeavesTheListAndEndsWithTheNextFile) {
    write(listOf("a"));
    start();
    fs::remove(file_);
    fs::create_directory(file_);
    ASSERT_TRUE(runLoopUntil([&] { return observer_.count > 0; }));
    EXPECT_EQ(firstName(*manager_), "a");
    fs::remove(file_);
    write(listOf("b"));
    EXPECT_TRUE(becomes("b"));
}

TEST_F(WatchTest, NeighboursOfTheFileAreNoBusinessOfOurs) {
    write(listOf("a"));
    start();
    useFile(directory_ / "neighbour");
    const auto neighbour = makeManager();
    CountingObserver witness;
    neighbour->registerObserver(&witness);
    // When the witness hears of its second change, news of the first would long have come here.
    for (int change = 1; change <= 2; ++change) {
        write(listOf("n"));
        ASSERT_TRUE(runLoopUntil([&] { return witness.count >= change; }));
    }
    EXPECT_EQ(observer_.count, 0);
}

TEST_F(WatchTest, CreatorsThreadDefaultContextIsNotUsed) {
    write(listOf("a"));
    GMainContext* other = g_main_context_new();
    g_main_context_push_thread_default(other);
    start();
    g_main_context_pop_thread_default(other);
    g_main_context_unref(other);
    replace(listOf("b"));
    EXPECT_TRUE(becomes("b"));
}

TEST_F(WatchTest, NoTimerRunsWhileNothingHappens) {
    write(listOf("a"));
    start();
    replace(listOf("b"));
    ASSERT_TRUE(becomes("b"));
    while (g_main_context_iteration(nullptr, FALSE) != FALSE) {
    }
    GMainContext* context = g_main_context_default();
    ASSERT_TRUE(g_main_context_acquire(context));
    int priority = 0;
    g_main_context_prepare(context, &priority);
    int timeoutMs = 0;
    std::vector<GPollFD> fds(16);
    g_main_context_query(context, G_MAXINT, &timeoutMs, fds.data(), static_cast<int>(fds.size()));
    g_main_context_release(context);
    EXPECT_EQ(timeoutMs, -1);
}

} // namespace trilba::test
