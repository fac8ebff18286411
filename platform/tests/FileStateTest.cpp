// Which state is in force when the file is not simply there and well formed.

#include "PlatformFixture.h"
#include "trilba/core/SystemInfo.h"

#include <sys/stat.h>

namespace trilba::test {

class FileStateTest : public PlatformFixture {
protected:
    FileStateTest() {
        write(kGood);
        EXPECT_EQ(imei(), "1");
    }

    static std::string imei() {
        std::string value;
        core::SystemInfo::getImei(value);
        return value;
    }

    void makeOld() const {
        fs::last_write_time(file_, fs::file_time_type::clock::now() - std::chrono::hours(1));
    }

    static constexpr const char* kGood = "[System]\nImei=1\n";
};

TEST_F(FileStateTest, RemovedFileMeansDefaults) {
    fs::remove(file_);
    EXPECT_EQ(imei(), "");
}

TEST_F(FileStateTest, RemovedDirectoryMeansDefaults) {
    fs::remove_all(directory_);
    EXPECT_EQ(imei(), "");
}

TEST_F(FileStateTest, AFileInTheWayOfTheDirectoryMeansDefaults) {
    useFile(file_ / "below-a-file");
    EXPECT_EQ(imei(), "");
}

TEST_F(FileStateTest, GarbageAfterRemovalLeavesTheDefaults) {
    fs::remove(file_);
    EXPECT_EQ(imei(), "");
    write("Imei");
    EXPECT_EQ(imei(), "");
}

TEST_F(FileStateTest, GarbageFromTheBeginningMeansDefaults) {
    useFile(directory_ / "other.conf");
    write("[System");
    EXPECT_EQ(imei(), "");
}

TEST_F(FileStateTest, AnotherFileDoesNotInheritTheLastGoodState) {
    useFile(directory_ / "other.conf");
    write("garbage");
    EXPECT_EQ(imei(), "");
}

TEST_F(FileStateTest, EmptyVariableMeansTheUsualPath) {
    setenv("TRILBA_PLATFORM_CONF", "", 1);
    std::string emptyVariable;
    core::SystemInfo::getPlatformId(emptyVariable);
    unsetenv("TRILBA_PLATFORM_CONF");
    std::string noVariable;
    core::SystemInfo::getPlatformId(noVariable);
    EXPECT_EQ(emptyVariable, noVariable);
    EXPECT_FALSE(noVariable.empty());
}

class BadTextTest : public FileStateTest, public testing::WithParamInterface<std::string> {};

TEST_P(BadTextTest, LeavesTheLastGoodStateInForce) {
    write(GetParam());
    EXPECT_EQ(imei(), "1");
    write("[System]\nImei=3\n");
    EXPECT_EQ(imei(), "3");
}

INSTANTIATE_TEST_SUITE_P(
    All, BadTextTest,
    testing::Values("[System", "[System]\nImei", "Imei=2\n", "[System]\nImei=2\nno key\n",
                    std::string("[System]\nImei=2\n\0\0\0", 19), "[System]\nImei=\xff\xfe\n",
                    "[System]\nImei=2\n[Location]\nNetworkPositioning=maybe\n",
                    "[System]\nImei=2\n[Location]\nNetworkPositioning=\n",
                    "[System]\nImei=2\n[Proxy]\nPort=0\n",
                    "[System]\nImei=2\n[Proxy]\nPort=65536\n",
                    "[System]\nImei=2\n[Proxy]\nPort=-1\n",
                    "[System]\nImei=2\n[Proxy]\nPort=http\n",
                    "[System]\nImei=2\n[Connections]\nList=a;\n[Connection a]\nKind=abc\n",
                    "[System]\nImei=2\n[Connections]\nList=a;\n[Connection a]\nKind=99999999999\n",
                    "[System]\nImei=2\n[Connections]\nList=a;\n[Connection a]\nActive=maybe\n",
                    "[System]\nImei=2\n[Connections]\nList=a;\n[Connection a]\nFlagged=2\n"));

TEST_F(FileStateTest, TooLargeFileLeavesTheLastGoodState) {
    write("[System]\nImei=2\n" + std::string(2UL * 1024 * 1024, '#') + "\n");
    EXPECT_EQ(imei(), "1");
}

TEST_F(FileStateTest, DirectoryInPlaceOfTheFileLeavesTheLastGoodState) {
    fs::remove(file_);
    fs::create_directory(file_);
    EXPECT_EQ(imei(), "1");
}

TEST_F(FileStateTest, FifoInPlaceOfTheFileLeavesTheLastGoodStateAndDoesNotBlock) {
    fs::remove(file_);
    ASSERT_EQ(mkfifo(file_.c_str(), 0600), 0);
    makeOld();
    EXPECT_EQ(imei(), "1");
}

TEST_F(FileStateTest, FileThatCannotBeOpenedLeavesTheLastGoodState) {
    fs::remove(file_);
    fs::create_symlink(file_, file_); // the superuser may read every file, but follows no circle
    EXPECT_EQ(imei(), "1");
}

TEST_F(FileStateTest, LinkToNowhereMeansDefaults) {
    fs::remove(file_);
    fs::create_symlink(directory_ / "nowhere", file_);
    EXPECT_EQ(imei(), "");
}

TEST_F(FileStateTest, FileTruncatedAMomentAgoLeavesTheLastGoodState) {
    write("");
    EXPECT_EQ(imei(), "1");
}

TEST_F(FileStateTest, FileThatHasBeenEmptyForLongMeansDefaults) {
    write("");
    makeOld();
    EXPECT_EQ(imei(), "");
}

TEST_F(FileStateTest, CommentsMayFollowValuesAndGroups) {
    write("; first line\n"
          "[System]              ; the device\n"
          "Imei=490154203237518  ; its identity\n"
          "[Connections]\n"
          "List=a;b;             ; names, each with its own ';'\n"
          "[Connection a]        ; the first\n"
          "Kind=1                ; integer\n"
          "[Connection b]\n"
          "[Proxy]\t; tabs as well\n"
          "Host=host;name\n");
    EXPECT_EQ(imei(), "490154203237518");
    const auto manager =
        std::unique_ptr<network::IConnectionManager>(network::IConnectionManager::create(nullptr));
    EXPECT_EQ(manager->connectionCount(), 2U);
    network::ConnectionInfo first;
    ASSERT_TRUE(manager->findConnection("a", first));
    EXPECT_EQ(first.kind, 1);
    network::ProxyQuery query;
    ASSERT_EQ(manager->lookUpProxy("https://h:443/", &query), network::kProxyFound);
    EXPECT_STREQ(query.host, "host;name");
}

TEST_F(FileStateTest, UnknownGroupsAndKeysAreIgnored) {
    write("[Other]\nKey=1\n[System]\nOther=1\nImei=2\n");
    EXPECT_EQ(imei(), "2");
}

TEST_F(FileStateTest, ReadingLeavesNoFileOpen) {
    const auto openFiles = [] {
        return std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator());
    };
    const auto before = openFiles();
    EXPECT_EQ(imei(), "1");
    fs::remove(file_);
    fs::create_directory(file_);
    EXPECT_EQ(imei(), "1");
    EXPECT_EQ(openFiles(), before);
}

} // namespace trilba::test
