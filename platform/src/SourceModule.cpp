#include "SourceModule.h"

#include <dlfcn.h>
#include <unistd.h>

namespace trilba {

namespace {

constexpr const char* kFile = "/trilba/trilba-platform-networkmanager.so";

std::string lastFault() {
    const char* text = dlerror();
    return text == nullptr ? "unknown fault" : text;
}

} // namespace

std::string SourceModule::path() {
    Dl_info library{};
    if (dladdr(reinterpret_cast<const void*>(&SourceModule::path), &library) == 0) {
        return {};
    }
    const std::string file = library.dli_fname;
    const auto slash = file.rfind('/');
    return (slash == std::string::npos ? "." : file.substr(0, slash)) + kFile;
}

bool SourceModule::isInstalled() {
    static const bool wasInstalled = access(path().c_str(), R_OK) == 0;
    return wasInstalled;
}

std::unique_ptr<IPlatformSource> SourceModule::makeSource(ISourceOwner& owner, std::string& fault) {
    // It stays loaded: what it brings along has registered types that cannot be taken back.
    void* module = dlopen(path().c_str(), RTLD_NOW | RTLD_LOCAL | RTLD_NODELETE);
    if (module == nullptr) {
        fault = lastFault();
        return nullptr;
    }
    const auto make = reinterpret_cast<MakeSource>(dlsym(module, kMakeSource));
    if (make == nullptr) {
        fault = "the module is of another version: " + lastFault();
        return nullptr;
    }
    return std::unique_ptr<IPlatformSource>(make(owner));
}

} // namespace trilba
