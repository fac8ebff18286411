#pragma once

namespace orvexd {

class DbusService;

/// The process-wide main loop as the service on the bus sees it. The order of the operations is
/// part of the interface. Main loop's thread.
class IMainLoop {
public:
    IMainLoop() = default;
    virtual ~IMainLoop() = default;
    IMainLoop(const IMainLoop&) = delete;
    IMainLoop& operator=(const IMainLoop&) = delete;

    /// Creates the service and takes its name on the bus. @return false when that is not possible.
    virtual bool init(int argc, char** argv) = 0;
    /// Destroys the service.
    virtual void deinit() = 0;
    /// Runs until `quit`. @return 0, or 1 when `init` has not succeeded.
    virtual int run() = 0;
    /// Asks the running loop to stop.
    virtual void quit() = 0;
    /// Null before `init` and after `deinit`.
    virtual DbusService* getService() = 0;
    /// True when the process runs as root and the device identity is in the environment.
    virtual bool checkEnvironment() = 0;
};

} // namespace orvexd
