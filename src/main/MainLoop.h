#pragma once

#include "dbus/DbusService.h"
#include "support/FreeWith.h"

#include <glib.h>
#include <memory>

namespace orvexd {

/// The process-wide main loop and owner of the service on the bus. States: made, initialised,
/// running, stopped, and made again after `deinit`. Main loop's thread only; what each operation
/// does stands at IMainLoop.
class MainLoop : public IMainLoop {
public:
    /// The one instance. It is made on first use and never freed, because the message filter and
    /// the handlers of signals refer to it until the process ends.
    static MainLoop& getInstance();

    MainLoop() = default;
    ~MainLoop() override = default;
    MainLoop(const MainLoop&) = delete;
    MainLoop& operator=(const MainLoop&) = delete;

    bool init(int argc, char** argv) override;
    void deinit() override;
    int run() override;
    void quit() override;
    DbusService* getService() override { return service_.get(); }
    bool checkEnvironment() override;

private:
    int argc_ = 0;
    char** argv_ = nullptr;
    bool initialised_ = false;
    std::unique_ptr<GMainLoop, FreeWith<g_main_loop_unref>> loop_; // null while not running
    std::unique_ptr<DbusService> service_;
};

} // namespace orvexd
