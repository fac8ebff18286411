#include "main/MainLoop.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <unistd.h>

namespace orvexd {

namespace {

bool isRoot() {
    return getuid() == 0 && geteuid() == 0;
}

bool isSetAndNotEmpty(const char* variable) {
    const char* value = std::getenv(variable);
    return value != nullptr && *value != '\0';
}

} // namespace

MainLoop& MainLoop::getInstance() {
    static MainLoop* const instance = std::make_unique<MainLoop>().release(); // lives to the end
    return *instance;
}

bool MainLoop::checkEnvironment() {
    // The platform reads the device identity from these. They only have to be set here.
    static constexpr std::array kVariables = {
        "KELVRA_UNIQUE_DEVICE_ID", "KELVRA_IMEI_FRAGMENT", "KELVRA_DEVICE_MANUFACTURER",
        "KELVRA_DEVICE_FIRMWARE_VERSION", "KELVRA_DEVICE_TERMINAL_MODEL"};
    return isRoot() && std::all_of(kVariables.begin(), kVariables.end(), isSetAndNotEmpty);
}

bool MainLoop::init(int argc, char** argv) {
    if (initialised_) {
        return true;
    }
    argc_ = argc;
    argv_ = argv;
    if (!checkEnvironment()) {
        return false;
    }
    service_ = std::make_unique<DbusService>(*this);
    initialised_ = service_->setUpBus();
    if (!initialised_) {
        service_.reset();
    }
    return initialised_;
}

void MainLoop::deinit() {
    service_.reset();
    initialised_ = false;
}

int MainLoop::run() {
    if (!initialised_) {
        return 1;
    }
    if (!loop_) {
        loop_.reset(g_main_loop_new(nullptr, FALSE));
    }
    g_main_loop_run(loop_.get());
    loop_.reset();
    return 0;
}

void MainLoop::quit() {
    if (loop_) {
        g_main_loop_quit(loop_.get());
    }
}

} // namespace orvexd
