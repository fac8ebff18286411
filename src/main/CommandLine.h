#pragma once

#include "protocol/Names.h"

#include <cstdio>
#include <span>
#include <string>
#include <string_view>
#include <trilba/core/Directory.h>
#include <trilba/core/SystemInfo.h>
#include <unistd.h>

namespace orvexd {

/// What the command line asks for beyond the options that have taken effect already.
enum class StartUp {
    Serve,        ///< go on
    PrintVersion, ///< print the banner and leave
};

/// Scans the words and carries the options out in their order. The scan begins at argv[0], the name
/// of the program. "--daemon" or "-D" detaches, "--preinst-dir DIR" and "--storage-dir DIR" set the
/// platform's directories, "--version" or "-v" ends the scan. Unknown words are skipped. An option
/// that lacks its argument ends the scan. Before any thread exists: daemon(3) keeps only the thread
/// that calls it.
/// @return whether to serve, or to print the banner.
[[nodiscard]] inline StartUp applyCommandLine(int argc, char** argv) {
    const std::span<char*> words(argv, argc > 0 ? static_cast<std::size_t>(argc) : 0);
    for (auto word = words.begin(); word != words.end() && *word != nullptr; ++word) {
        const std::string_view option(*word);
        if (option == "--version" || option == "-v") {
            return StartUp::PrintVersion;
        }
        if (option == "--daemon" || option == "-D") {
            [[maybe_unused]] const int ignored = daemon(0, 0); // or serves in the foreground
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
            trilba::core::Directory::setPreinstalledFilesPath(*word);
        } else {
            trilba::core::Directory::setDefaultStoragePath(*word, false);
        }
    }
    return StartUp::Serve;
}

/// Prints the one line that the daemon ever prints: platform version, platform id, build time. To
/// standard output, which a failure does not change.
inline void printVersionBanner() {
    std::string platformId;
    trilba::core::SystemInfo::getPlatformId(platformId);
    std::printf("trilba %i.%i.%i [%s] orvexd built: %s %s\n", version::kMajor, version::kMinor,
                version::kBuild, platformId.c_str(), __DATE__, __TIME__);
}

} // namespace orvexd
