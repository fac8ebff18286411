#include "main/CommandLine.h"

#include "protocol/Names.h"

#include <cstdio>
#include <span>
#include <string>
#include <string_view>
#include <trilba/core/Directory.h>
#include <trilba/core/SystemInfo.h>
#include <unistd.h>

namespace orvexd {

using trilba::core::Directory;

namespace {

/// Goes to the background. A daemon that cannot do so serves in the foreground.
void detach() {
    [[maybe_unused]] const int ignored = daemon(0, 0);
}

} // namespace

StartUp applyCommandLine(int argc, char** argv) {
    const std::span<char*> words(argv, argc > 0 ? static_cast<std::size_t>(argc) : 0);
    for (auto word = words.begin(); word != words.end() && *word != nullptr; ++word) {
        const std::string_view option(*word);
        if (option == "--version" || option == "-v") {
            return StartUp::PrintVersion;
        }
        if (option == "--daemon" || option == "-D") {
            detach();
            continue;
        }
        const bool preinstalled = option == "--preinst-dir";
        if (!preinstalled && option != "--storage-dir") {
            continue;
        }
        if (++word == words.end() || *word == nullptr) {
            break;
        }
        if (preinstalled) {
            Directory::setPreinstalledFilesPath(*word);
        } else {
            Directory::setDefaultStoragePath(*word, false);
        }
    }
    return StartUp::Serve;
}

void printVersionBanner() {
    std::string platformId;
    trilba::core::SystemInfo::getPlatformId(platformId);
    std::printf("trilba %i.%i.%i [%s] orvexd built: %s %s\n", version::kMajor, version::kMinor,
                version::kBuild, platformId.c_str(), __DATE__, __TIME__);
}

} // namespace orvexd
