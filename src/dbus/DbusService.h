#pragma once

#include "core/OrvexMain.h"
#include "core/ServicePosts.h"
#include "dbus/BusLink.h"
#include "dbus/ClientCalls.h"
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

/// The daemon's client interface on the system bus. Owns the gateway core. Main loop's thread only,
/// which the bus connection shares with nobody, so there is no lock.
///
/// Sources: DbusService.cpp has the life on the bus, MethodHandlers.cpp the dispatch and what each
/// incoming message does, ServiceEvents.cpp the outgoing signals and held replies.
class DbusService : public IServiceEvents, private ClientCalls::IReceiver {
public:
    /// Reads "daemon_shutdown_delay" from the settings loaded so far; main() loads the file later.
    /// @param mainLoop must outlive this object.
    /// @param limits smaller than usual for tests.
    explicit DbusService(IMainLoop& mainLoop, UserLimits limits = {});
    /// Ends a running exchange, leaves the bus, destroys the gateway core. May take as long as the
    /// worker waits: for a client at most 90 s, for the server at most the rest of its 60 s.
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
    void watchClient(const std::string& name) override;
    void onMemoryShort() override;

private:
    struct Member;
    using Handler = DBusHandlerResult (DbusService::*)(DBusMessage& message, const Client& client);
    using CreateRequest = std::uint32_t (OrvexMain::*)(std::uint32_t, std::uint32_t, std::uint32_t,
                                                       const Client&);

    /// A client that is watched, and how.
    struct Watch {
        explicit Watch(const std::string& client);

        const std::string name;
        const MatchRule rule;
        BusQuestion question; ///< whether it has left before
    };

    /// libdbus calls it with each message that comes. @param mainLoop the MainLoop.
    static DBusHandlerResult filter(DBusConnection* connection, DBusMessage* message,
                                    void* mainLoop) noexcept;
    /// The member that the message is for; null for one that the daemon does not have.
    static const Member* memberOf(DBusMessage& message);
    DBusHandlerResult dispatch(DBusMessage& message);
    /// Calls the handler, and answers the error that it throws.
    DBusHandlerResult handle(Handler handler, DBusMessage& message, const Client& client);
    void onNameOwnerChanged(DBusMessage& signal);
    void onWatchedClientLeft();

    // -- ClientCalls::IReceiver ---------------------------------------------------------------

    DBusHandlerResult onMessage(DBusMessage& message, const Client& client) override;
    void beginGivingBack(const ClientCalls::Names& onBus) override;
    void giveBackMemory() override;
    bool giveBack(const LimitExceeded& refusal) override;
    void endGivingBack() override;

    // The steps onto the bus, each false when it fails, and the way off it.
    bool connectToBus();
    static bool requestName();
    static bool subscribe();
    bool installFilter();
    void leaveBus();

    // One for each member. An `int` that it throws is the code of the call's error.
    DBusHandlerResult onQuit(DBusMessage& call, const Client& client);
    DBusHandlerResult onQuitDelayed(DBusMessage& call, const Client& client);
    DBusHandlerResult onCancel(DBusMessage& signal, const Client& client);
    DBusHandlerResult onConnect(DBusMessage& call, const Client& client);
    DBusHandlerResult onDisconnect(DBusMessage& call, const Client& client);
    DBusHandlerResult onAttach(DBusMessage& call, const Client& client);
    DBusHandlerResult onPrepare(DBusMessage& call, const Client& client);
    DBusHandlerResult onSendData(DBusMessage& call, const Client& client);
    DBusHandlerResult onGetData(DBusMessage& call, const Client& client);
    DBusHandlerResult onGetProperty(DBusMessage& call, const Client& client);

    DBusHandlerResult createRequest(DBusMessage& call, const Client& client, CreateRequest create);

    IMainLoop& mainLoop_;
    // Null while the core is being built, which may ask for it already.
    std::unique_ptr<trilba::core::ISystemLocationSettings> locationSettings_;
    std::unique_ptr<OrvexMain> core_;
    PendingReplies pending_; // held calls of getData
    HeldSends heldSends_;    // held replies to sendData
    ClientCalls clients_{*this};
    DepartedConnections departed_;       // empty except while they are given back
    std::unique_ptr<Watch> watch_;       // null as long as nobody is watched
    MainLoopTimer delayedQuit_;          // from quitDelayed to the end
    std::chrono::seconds shutdownDelay_; // of that timer
    bool filterInstalled_ = false;
};

} // namespace orvexd
