#include "Answers.h"

#include "LibraryMutex.h"
#include "OsRelease.h"
#include "PlatformFile.h"
#include "SourceModule.h"

#include <mutex>
#include <utility>

namespace trilba {

namespace {

std::shared_ptr<const Settings>& liveState() {
    // Never destroyed: a thread may still ask while the process ends. Guarded by libraryMutex().
    static auto& instance = *std::make_unique<std::shared_ptr<const Settings>>().release();
    return instance;
}

} // namespace

SourceName chosenSource(const Settings& file, const Surroundings& surroundings) {
    switch (file.source) {
    case SourceWish::File:
        return SourceName::File;
    case SourceWish::NetworkManager:
        return SourceName::NetworkManager;
    case SourceWish::Auto:
        break;
    }
    const bool live =
        surroundings.moduleIsInstalled && !surroundings.fileIsNamed && !file.saysConnections;
    return live ? SourceName::NetworkManager : SourceName::File;
}

SourceName chosenSource(const Settings& file) {
    const bool fileIsNamed = PlatformFile::isNamed();
    const bool isOpen = file.source == SourceWish::Auto && !file.saysConnections && !fileIsNamed;
    return chosenSource(file, {fileIsNamed, isOpen && SourceModule::isInstalled()});
}

Settings overridden(const Settings& live, const Settings& file) {
    Settings result = live;
    result.networkPositioning = file.networkPositioning;
    if (file.saysSystem) {
        result.platformId = file.platformId;
        result.imei = file.imei;
        result.imsi = file.imsi;
        result.mmf = file.mmf;
    }
    if (file.saysProxy) {
        result.proxyHost = file.proxyHost;
        result.proxyPort = file.proxyPort;
    }
    return result;
}

std::shared_ptr<const Settings> LiveState::get() {
    {
        const std::lock_guard hold(libraryMutex());
        if (liveState()) {
            return liveState();
        }
    }
    return std::make_shared<const Settings>(initial());
}

void LiveState::set(std::shared_ptr<const Settings> state) {
    const std::lock_guard hold(libraryMutex());
    liveState() = std::move(state);
}

Settings LiveState::initial() {
    Settings state;
    state.platformId = OsRelease::ofThisSystem().platformId;
    state.mmf = OsRelease::ofThisSystem().firmwareId;
    return state;
}

std::shared_ptr<const Settings> answersNow(const std::string& path) {
    auto file = PlatformFile::read(path).settings;
    if (chosenSource(*file) == SourceName::File) {
        return file;
    }
    return std::make_shared<const Settings>(overridden(*LiveState::get(), *file));
}

std::shared_ptr<const Settings> answersNow() {
    return answersNow(PlatformFile::path());
}

} // namespace trilba
