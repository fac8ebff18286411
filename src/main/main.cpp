#include "config/ConfHandler.h"
#include "main/CommandLine.h"
#include "main/MainLoop.h"
#include "support/XmlHandles.h"

#include <csignal>
#include <cstdlib>
#include <exception>
#include <glib-unix.h>
#include <libxml/parser.h>
#include <malloc.h>
#include <string>
#include <sys/stat.h>
#include <trilba/Debug.h>
#include <trilba/core/Directory.h>
#include <trilba/core/SystemInfo.h>

namespace {

using orvexd::MainLoop;
using trilba::core::Directory;

extern "C" gboolean quitOnSignal(gpointer /*data*/) noexcept {
    MainLoop::getInstance().quit();
    return G_SOURCE_REMOVE; // a second signal of the same kind ends the process
}

/// libdbus grows the buffer of its incoming messages for each large message and shrinks it again. A
/// message of 64 KiB needs 128 KiB, which glibc would take from the kernel as a mapping of its own
/// and give back every time. That would cost a fifth of the time of an upload.
void keepBuffersInHeap() {
#ifdef __GLIBC__
    constexpr int kLargestBuffer = 1024 * 1024;
    (void)mallopt(M_MMAP_THRESHOLD, kLargestBuffer);
    (void)mallopt(M_TRIM_THRESHOLD, kLargestBuffer);
#endif
}

/// The daemon prints nothing, not even when a fatal condition ends it.
void prepareProcess() {
    keepBuffersInHeap();
    std::set_terminate([] { std::abort(); });
    (void)std::signal(SIGPIPE, SIG_IGN); // neither libdbus nor libcurl (NOSIGNAL) sees to it
    xmlInitParser();                     // before any thread uses libxml2
    orvexd::silenceXmlErrors();
}

/// Asks for the directories once, after the command line may have changed them.
void confirmDirectories() {
    std::string path;
    bool isSet = false;
    Directory::getPreinstalledFilesPath(path);
    Directory::getDefaultStoragePath(path, isSet);
}

void loadConfiguration() {
    orvexd::ConfHandler::load(Directory::getPreinstalledFilesPath() + "/orvexd.schema",
                              "orvexdconfig");
}

} // namespace

int main(int argc, char** argv) {
    prepareProcess();
    trilba::Debug::init();
    (void)std::atexit(&trilba::Debug::release);
    std::string platformId;
    trilba::core::SystemInfo::getPlatformId(platformId);
    umask(S_IRWXG | S_IRWXO);
    MainLoop& mainLoop = MainLoop::getInstance();
    if (orvexd::applyCommandLine(argc, argv) == orvexd::StartUp::PrintVersion) {
        orvexd::printVersionBanner();
        return 0;
    }
    confirmDirectories();
    if (!mainLoop.init(argc, argv)) {
        return 1;
    }
    // After init on purpose: the objects have taken their settings from the store while it was
    // empty. The file only has to be well formed; a malformed one ends the process.
    loadConfiguration();
    g_unix_signal_add(SIGINT, quitOnSignal, nullptr);
    g_unix_signal_add(SIGTERM, quitOnSignal, nullptr);
    const int result = mainLoop.run();
    mainLoop.deinit();
    return result;
}
