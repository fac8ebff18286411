#pragma once

#include "Failure.h"
#include "GioHandles.h"

#include <functional>

namespace orvexd::ctl {

/// Hears from the service manager that the daemon does not start. The bus, which has asked for the
/// start, goes on waiting then. Where no service manager is on the bus, this does nothing.
class StartWatch {
public:
    using Handler = std::function<void(const Failure&)>;

    /// Is to be made before the call that starts the daemon.
    /// @param failed gets the reason, at most once
    StartWatch(GDBusConnection* bus, Handler failed);
    ~StartWatch();
    StartWatch(const StartWatch&) = delete;
    StartWatch& operator=(const StartWatch&) = delete;

    /// Why the daemon did not start, as the service manager sees it; `otherwise` if it does not
    /// know.
    [[nodiscard]] Failure failure(const Failure& otherwise) const;

private:
    static void jobRemoved(GDBusConnection* bus, const char* sender, const char* path,
                           const char* interface, const char* name, GVariant* arguments,
                           gpointer self) noexcept;
    void subscribe();

    ObjectRef<GDBusConnection> bus_;
    Handler failed_;
    guint subscription_ = 0;
};

} // namespace orvexd::ctl
