#pragma once

#include "core/ServicePosts.h"
#include "dbus/HeldSends.h"
#include "dbus/IMainLoop.h"
#include "dbus/PendingReplies.h"
#include "support/BusHandles.h"
#include "support/MainLoopPost.h"

#include <chrono>
#include <cstdint>
#include <dbus/dbus.h>
#include <memory>
#include <string>
#include <trilba/core/ISystemLocationSettings.h>

namespace orvexd {

class OrvexMain;

/// The daemon's client interface on the system bus. Owns the gateway core. Main loop's thread only,
/// which the bus connection shares with nobody, so there is no lock.
///
/// Sources: DbusService.cpp has the life on the bus, MethodHandlers.cpp the dispatch and what each
/// incoming message does, ServiceEvents.cpp the outgoing signals and held replies.
class DbusService : public IServiceEvents {
public:
    /// Reads "daemon_shutdown_delay" from the settings loaded so far; main() loads the file later.
    /// @param mainLoop must outlive this object.
    explicit DbusService(IMainLoop& mainLoop);
    /// Ends a running exchange, leaves the bus, destroys the gateway core. May take as long as the
    /// worker waits for a client, at most 90 s.
    ~DbusService() override;
    DbusService(const DbusService&) = delete;
    DbusService& operator=(const DbusService&) = delete;

    /// Connects to the system bus, takes the name, subscribes and starts to serve.
    /// @return false when there is no bus or the name belongs to somebody else.
    bool setUpBus();

    /// Ends exchanges, gives up held calls, answers `call` if there is one, and stops the main
    /// loop.
    DBusHandlerResult quit(DBusMessage* call);

    /// Delay of quitDelayed, at least 1 s.
    [[nodiscard]] std::chrono::seconds shutdownDelay() const noexcept { return shutdownDelay_; }

    // -- IServiceEvents -----------------------------------------------------------------------

    bool isExchangePermitted() override;
    void emitConnectionStatusChanged(std::uint32_t status) override;
    void emitRequestData(std::uint32_t connectionId, std::uint32_t requestId) override;
    /// A message that the bus would refuse is made valid first; more keys than one message holds
    /// are spread over several signals.
    void emitErrorSignal(std::uint32_t code, const std::string& message,
                         const std::string& requests) override;
    void deliverChunk(std::uint32_t connectionId, std::uint32_t requestId, const std::string& bytes,
                      DeliveryCode code) override;
    void resumeUpload(std::uint32_t connectionId, std::uint32_t requestId) override;
    /// Replies to sendData that are held for the request go out: its data was accepted.
    void dropPending(std::uint32_t connectionId, std::uint32_t requestId) override;

private:
    struct Member;
    using Handler = DBusHandlerResult (DbusService::*)(DBusMessage& message);
    using CreateRequest = std::uint32_t (OrvexMain::*)(std::uint32_t, std::uint32_t, std::uint32_t);

    static DBusHandlerResult filter(DBusConnection* connection, DBusMessage* message,
                                    void* mainLoop) noexcept;
    DBusHandlerResult dispatch(DBusMessage& message);
    DBusHandlerResult handle(Handler handler, DBusMessage& message);

    bool connectToBus();
    static bool requestName();
    static bool subscribe();
    bool installFilter();
    void leaveBus();

    DBusHandlerResult onQuit(DBusMessage& call);
    DBusHandlerResult onQuitDelayed(DBusMessage& call);
    DBusHandlerResult onCancel(DBusMessage& signal);
    DBusHandlerResult onConnect(DBusMessage& call);
    DBusHandlerResult onDisconnect(DBusMessage& call);
    DBusHandlerResult onAttach(DBusMessage& call);
    DBusHandlerResult onPrepare(DBusMessage& call);
    DBusHandlerResult onSendData(DBusMessage& call);
    DBusHandlerResult onGetData(DBusMessage& call);
    DBusHandlerResult onGetProperty(DBusMessage& call);

    DBusHandlerResult createRequest(DBusMessage& call, CreateRequest create);

    IMainLoop& mainLoop_;
    // Null while the core is being built, which may ask for it already.
    std::unique_ptr<trilba::core::ISystemLocationSettings> locationSettings_;
    std::unique_ptr<OrvexMain> core_;
    PendingReplies pending_;
    HeldSends heldSends_;
    MainLoopTimer delayedQuit_;
    std::chrono::seconds shutdownDelay_;
    bool filterInstalled_ = false;
};

} // namespace orvexd
