#include "trilba/core/Directory.h"

#include "PlatformFixture.h"

#include <iostream>

namespace trilba::test {

using core::Directory;

class DirectoryTest : public PlatformFixture {
protected:
    struct Storage {
        std::string path;
        bool isSet = false;
    };

    static Storage storage() {
        Storage storage;
        Directory::getDefaultStoragePath(storage.path, storage.isSet);
        return storage;
    }
};

// In a process of its own: what another test sets cannot be unset.
TEST_F(DirectoryTest, BuiltInDefaultsHoldUntilSomethingIsSet) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const auto check = [] {
        bool isSet = true;
        std::string path;
        Directory::getDefaultStoragePath(path, isSet);
        const bool good = !isSet && path == TRILBA_STORAGE_DIR &&
                          Directory::getPreinstalledFilesPath() == TRILBA_PREINST_DIR;
        std::exit(good ? 0 : 1);
    };
    EXPECT_EXIT(check(), testing::ExitedWithCode(0), "");
}

TEST_F(DirectoryTest, PreinstalledPathIsKeptAsGiven) {
    Directory::setPreinstalledFilesPath("some/../where//");
    std::string path = "before";
    Directory::getPreinstalledFilesPath(path);
    EXPECT_EQ(path, "some/../where//");
    EXPECT_EQ(Directory::getPreinstalledFilesPath(), path);
}

TEST_F(DirectoryTest, StoragePathIsSetWithoutMakingTheDirectory) {
    const fs::path wanted = directory_ / "store";
    EXPECT_TRUE(Directory::setDefaultStoragePath(wanted, false));
    EXPECT_EQ(storage().path, wanted);
    EXPECT_TRUE(storage().isSet);
    EXPECT_FALSE(fs::exists(wanted));
}

TEST_F(DirectoryTest, StorageDirectoryIsMadeOnDemandWithItsParents) {
    const fs::path wanted = directory_ / "deep" / "store";
    EXPECT_TRUE(Directory::setDefaultStoragePath(wanted, true));
    EXPECT_EQ(storage().path, wanted);
    EXPECT_TRUE(fs::is_directory(wanted));
}

TEST_F(DirectoryTest, ExistingStorageDirectoryIsGoodEnough) {
    EXPECT_TRUE(Directory::setDefaultStoragePath(directory_, true));
    EXPECT_EQ(storage().path, directory_);
}

TEST_F(DirectoryTest, DirectoryThatCannotBeMadeChangesNothing) {
    EXPECT_TRUE(Directory::setDefaultStoragePath(directory_, false));
    write("a file in the way");
    EXPECT_FALSE(Directory::setDefaultStoragePath(file_ / "store", true));
    EXPECT_EQ(storage().path, directory_);
}

} // namespace trilba::test
