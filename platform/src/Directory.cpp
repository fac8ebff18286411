#include "trilba/core/Directory.h"

#include "LibraryMutex.h"

#include <filesystem>
#include <memory>
#include <mutex>
#include <system_error>

namespace trilba::core {

namespace {

struct Directories {
    std::string preinstalled = TRILBA_PREINST_DIR; // guarded by libraryMutex()
    std::string storage = TRILBA_STORAGE_DIR;      // guarded by libraryMutex()
    bool storageIsSet = false;                     // guarded by libraryMutex()
};

Directories& directories() {
    // Never destroyed: a thread may still ask while the process ends.
    static Directories& instance = *std::make_unique<Directories>().release();
    return instance;
}

bool makeDirectory(const std::string& path) {
    std::error_code error;
    std::filesystem::create_directories(path, error);
    return std::filesystem::is_directory(path, error);
}

} // namespace

void Directory::setPreinstalledFilesPath(const std::string& path) {
    const std::lock_guard hold(libraryMutex());
    directories().preinstalled = path;
}

void Directory::getPreinstalledFilesPath(std::string& path) {
    path = getPreinstalledFilesPath();
}

std::string Directory::getPreinstalledFilesPath() {
    const std::lock_guard hold(libraryMutex());
    return directories().preinstalled;
}

bool Directory::setDefaultStoragePath(const std::string& path, bool create) {
    if (create && !makeDirectory(path)) {
        return false;
    }
    const std::lock_guard hold(libraryMutex());
    directories().storage = path;
    directories().storageIsSet = true;
    return true;
}

void Directory::getDefaultStoragePath(std::string& path, bool& isSet) {
    const std::lock_guard hold(libraryMutex());
    path = directories().storage;
    isSet = directories().storageIsSet;
}

} // namespace trilba::core
