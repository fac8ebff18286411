#pragma once

namespace orvexd {

/// What the command line asks for beyond the options that have taken effect already.
enum class StartUp {
    Serve,        ///< go on
    PrintVersion, ///< print the banner and leave
};

/// Scans the words and carries the options out in their order. The scan begins at argv[0], the name
/// of the program. "--daemon" or "-D" detaches, "--preinst-dir DIR" and "--storage-dir DIR" set the
/// platform's directories, "--version" or "-v" ends the scan. Unknown words are skipped. An option
/// that lacks its argument ends the scan.
[[nodiscard]] StartUp applyCommandLine(int argc, char** argv);

/// Prints the one line that the daemon ever prints: platform version, platform id, build time.
void printVersionBanner();

} // namespace orvexd
