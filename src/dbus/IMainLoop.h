#pragma once

namespace orvexd {

class DbusService;

/// The process-wide main loop as the service on the bus sees it. The order of the operations is
/// part of the interface. Main loop's thread.
class IMainLoop {
public:
    virtual ~IMainLoop() = default;

    /// Creates the service and takes its name on the bus. A second call does nothing.
    /// @return false when the environment is not right or the name cannot be had.
    virtual bool init(int argc, char** argv) = 0;
    /// Destroys the service, which ends a running exchange first.
    virtual void deinit() = 0;
    /// Runs until `quit`. @return 0, or 1 when `init` has not succeeded.
    virtual int run() = 0;
    /// Asks the running loop to stop. Nothing happens when none runs.
    virtual void quit() = 0;
    /// Null before `init` and after `deinit`.
    virtual DbusService* getService() = 0;
    /// True when the process runs as root and the device identity is in the environment.
    virtual bool checkEnvironment() = 0;
};

} // namespace orvexd
