#pragma once

#include "Failure.h"
#include "Gateway.h"
#include "GioHandles.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>

namespace orvexd::ctl {

/// What every request of a connection has in common. Texts go out as their exact bytes.
struct ConnectionValues {
    std::string elementName;
    std::string type;
    std::string version;
    std::string transferEncoding;
    std::string contentType;
    std::uint32_t chunkSize = 0; ///< largest number of answer bytes in one chunk
};

/// Which call creates the request, and its two numbers.
struct RequestValues {
    bool attach = false;
    std::uint32_t policy = 0;
    std::uint32_t openDuration = 0;
};

enum class Delivery : std::uint32_t {
    PartContinues = 2301,
    PartComplete = 2302,
    ResponseComplete = 2303,
};

/// One piece of an answer.
struct Chunk {
    VariantRef bytes; ///< of type "ay"
    Delivery delivery = Delivery::PartContinues;
};

/// The daemon as its clients see it. Everything runs on the thread of the default main context;
/// handlers of asynchronous calls run from its main loop, exactly once each, also after the client
/// object is gone. Only openConnection and connectionStatus start a daemon that is not running.
class Client {
public:
    template <typename Result> using Handler = std::function<void(Outcome<Result>)>;

    /// @throws Failure when the bus cannot be reached.
    Client();
    ~Client();
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    /// Longest wait for the answer of any call but fetchChunk and quit; zero means no limit.
    void setCallTimeout(std::chrono::seconds timeout);

    /// @throws Failure
    std::uint32_t connectionStatus();

    /// Asks for a sign of life. @throws Failure
    void ping();

    /// Ends the daemon, at once or after its delay. @throws Failure
    void quit(bool delayed);

    void openConnection(const ConnectionValues& values, Handler<std::uint32_t> handler);
    void createRequest(std::uint32_t connection, const RequestValues& values,
                       Handler<std::uint32_t> handler);

    /// A result other than "accepted" arrives as Failure with the result as its code.
    void sendPiece(std::uint32_t connection, std::uint32_t request, GBytes* bytes, bool last,
                   Handler<Done> handler);

    /// The daemon holds the call until it has something: no time-out, end it with `cancellable`.
    /// At most one such call per request may be under way.
    void fetchChunk(std::uint32_t connection, std::uint32_t request, GCancellable* cancellable,
                    Handler<Chunk> handler);

    void closeConnection(std::uint32_t connection, Handler<Done> handler);

    /// Broadcasts the signal that cancels a request. It travels in order with the calls around it
    /// and is not answered.
    void cancel(std::uint32_t connection, std::uint32_t request);

    // What the daemon tells without being asked. Set before the calls that may cause it.
    std::function<void(std::uint32_t status)> onStatusChanged;
    std::function<void(std::uint32_t connection, std::uint32_t request)> onRequestData;
    std::function<void(const Failure& failure, const std::string& keys)> onError;
    /// Some client cancelled a request; this one hears its own signals, too.
    std::function<void(std::uint32_t connection, std::uint32_t request)> onCancelled;
    /// The daemon that was there has left the bus or was replaced, or the bus itself is gone.
    std::function<void()> onGone;

private:
    static void statusChanged(OrvexdGateway*, guint status, gpointer self) noexcept;
    static void requestData(OrvexdGateway*, guint connection, guint request,
                            gpointer self) noexcept;
    static void errorSignal(OrvexdGateway*, guint code, const char* message, const char* keys,
                            gpointer self) noexcept;
    static void cancelled(GDBusConnection*, const char* sender, const char* path,
                          const char* interface, const char* name, GVariant* arguments,
                          gpointer self) noexcept;
    static void ownerChanged(GObject*, GParamSpec*, gpointer self) noexcept;
    static void busClosed(GDBusConnection*, gboolean, GError*, gpointer self) noexcept;

    void gone() const;

    ObjectRef<GDBusConnection> bus_;
    ObjectRef<OrvexdGateway> gateway_;
    std::string owner_; ///< unique name of the daemon; empty until one was seen
    guint cancelSubscription_ = 0;
    int timeoutMs_ = -1;
};

} // namespace orvexd::ctl
