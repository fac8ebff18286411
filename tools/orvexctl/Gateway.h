#pragma once

#include "GioHandles.h"
#include "Wait.h"

#include <chrono>
#include <cstdint>

namespace orvexd::ctl {

/// What those who look after a daemon ask of it; requests are the client library's. Does not start
/// a daemon that is not running.
class Gateway {
public:
    /// @param limit of all calls together; zero for none
    /// @throws Failure when the bus cannot be reached.
    explicit Gateway(std::chrono::seconds limit);

    /// Cancels a request of whomever this user may, and returns when the daemon has dealt with it.
    /// @throws Failure
    void cancel(std::uint32_t connection, std::uint32_t request);

    /// Ends the daemon, at once or after its delay. @throws Failure
    void quit(bool delayed);

private:
    void call(const char* interface, const char* member, GVariant* arguments,
              Awaited what = Awaited::Daemon);

    Wait wait_;
    ObjectRef<GDBusConnection> bus_;
};

} // namespace orvexd::ctl
