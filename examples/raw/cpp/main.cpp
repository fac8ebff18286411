// A small client of orvexd: sends one file to the positioning server and prints the answer.
//
//     orvexd-example-client FILE
//
// Steps 1 to 6 are those of docs/client-guide.md. Gateway.h is made by gdbus-codegen from the
// interface description com.kelvra.orvexd.xml.
#include "Gateway.h"

#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <fstream>
#include <gio/gio.h>
#include <glib-unix.h>
#include <iostream>
#include <memory>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>

namespace {

// What a request of this client is. The daemon passes these on to the server unchecked.
constexpr std::string_view kElementName = "fingerprintRequest";
constexpr std::string_view kType = "fingerprint"; // the daemon waits 90 s for each piece, not 5 s
constexpr std::string_view kVersion = "1.0";
constexpr std::string_view kTransferEncoding = "binary"; // every other value changes line ends
constexpr std::string_view kContentType = "application/xml";

constexpr guint kPolicy = 2;       // any network connection that is not restricted
constexpr guint kOpenDuration = 0; // no wish
constexpr guint kChunkSize = 64 * 1024;
constexpr std::size_t kPieceSize = std::size_t{64} * 1024;
constexpr guint kPatienceSeconds = 180; // an exchange may have to wait for the one before it
constexpr guint kReasonSeconds = 2;

// What getData says about a chunk.
constexpr guint kPartContinues = 2301;
constexpr guint kPartComplete = 2302;
constexpr guint kResponseComplete = 2303;

constexpr gint kUnknownRequest = 41; // of sendData, and in the text of error replies

template <auto Free> struct FreeWith {
    template <typename T> void operator()(T* handle) const noexcept { Free(handle); }
};
template <typename Object> using ObjectRef = std::unique_ptr<Object, FreeWith<g_object_unref>>;
using VariantRef = std::unique_ptr<GVariant, FreeWith<g_variant_unref>>;
using LoopRef = std::unique_ptr<GMainLoop, FreeWith<g_main_loop_unref>>;

/// Takes the error of a GLib call.
class ErrorSlot {
public:
    ErrorSlot() noexcept = default;
    ~ErrorSlot() { g_clear_error(&error_); }
    ErrorSlot(const ErrorSlot&) = delete;
    ErrorSlot& operator=(const ErrorSlot&) = delete;
    ErrorSlot(ErrorSlot&&) = delete;
    ErrorSlot& operator=(ErrorSlot&&) = delete;

    GError** out() noexcept { return &error_; }
    [[nodiscard]] bool isCancelled() const noexcept {
        return g_error_matches(error_, G_IO_ERROR, G_IO_ERROR_CANCELLED) != FALSE;
    }
    [[nodiscard]] std::string text() const {
        return error_ != nullptr ? error_->message : "unknown error";
    }

    /// The daemon's errors end with "(CODE) unspecifiedError"; only the number means something.
    [[nodiscard]] bool isUnknownRequest() const {
        return text().find(": (" + std::to_string(kUnknownRequest) + ") ") != std::string::npos;
    }

private:
    GError* error_ = nullptr;
};

/// Texts travel as byte arrays, without a terminating zero.
GVariant* byteArray(std::string_view bytes) {
    return g_variant_new_fixed_array(G_VARIANT_TYPE_BYTE, bytes.data(), bytes.size(), 1);
}

class ExampleClient {
public:
    explicit ExampleClient(const char* path);
    ~ExampleClient();
    ExampleClient(const ExampleClient&) = delete;
    ExampleClient& operator=(const ExampleClient&) = delete;
    ExampleClient(ExampleClient&&) = delete;
    ExampleClient& operator=(ExampleClient&&) = delete;

    /// One whole request. @throws std::runtime_error with what went wrong
    void run();

private:
    void reachDaemon();
    void openConnection();
    void createRequest();
    void sendQuestion();
    void fetchChunk();
    void takeChunk(std::string_view bytes, guint deliveryCode);
    void waitForReason();
    void end(const std::string& failure = {});

    static void requestData(OrvexdGateway* gateway, guint connection, guint request,
                            gpointer self) noexcept;
    static void errorSignal(OrvexdGateway* gateway, guint code, const char* message,
                            const char* requests, gpointer self) noexcept;
    static void chunkArrived(GObject* gateway, GAsyncResult* result, gpointer self) noexcept;
    static gboolean interrupted(gpointer self) noexcept;
    static gboolean outOfPatience(gpointer self) noexcept;
    static gboolean noReasonCame(gpointer self) noexcept;

    std::ifstream question_;
    LoopRef loop_{g_main_loop_new(nullptr, FALSE)};
    ObjectRef<GCancellable> stop_{g_cancellable_new()};
    ObjectRef<OrvexdGateway> gateway_;
    std::optional<guint> connection_;
    std::optional<guint> request_;
    bool fetching_ = false; ///< a getData call is under way
    bool ended_ = false;
    std::string failure_; ///< empty: everything went well
};

ExampleClient::ExampleClient(const char* path) : question_{path, std::ios::binary} {
    if (!question_) {
        throw std::runtime_error{std::string{"Cannot read "} + path};
    }
}

ExampleClient::~ExampleClient() {
    if (gateway_ == nullptr) {
        return;
    }
    g_signal_handlers_disconnect_by_data(gateway_.get(), this);
    // Step 6. Always, also after an error: nobody else tells the daemon that this client is gone,
    // and its requests would stay.
    if (connection_) {
        orvexd_gateway_call_disconnect_sync(gateway_.get(), *connection_, G_DBUS_CALL_FLAGS_NONE,
                                            -1, nullptr, nullptr);
    }
}

void ExampleClient::run() {
    // From here on they are handled by the main loop, so that the connection is closed in any case.
    g_unix_signal_add(SIGINT, interrupted, this);
    g_unix_signal_add(SIGTERM, interrupted, this);
    reachDaemon();
    openConnection();
    createRequest();
    fetchChunk();

    g_timeout_add_seconds(kPatienceSeconds, outOfPatience, this);
    g_main_loop_run(loop_.get());
    while (fetching_) { // the cancelled call still has to come home
        g_main_context_iteration(nullptr, TRUE);
    }
    if (!failure_.empty()) {
        throw std::runtime_error{failure_};
    }
}

// Step 1: a proxy, and ears for its signals before anything can cause one. The proxy must not load
// properties: the daemon does not answer GetAll.
void ExampleClient::reachDaemon() {
    ErrorSlot error;
    gateway_.reset(orvexd_gateway_proxy_new_for_bus_sync(
        G_BUS_TYPE_SYSTEM, G_DBUS_PROXY_FLAGS_DO_NOT_LOAD_PROPERTIES, "com.kelvra.orvexd",
        "/com/kelvra/orvexd", nullptr, error.out()));
    if (gateway_ == nullptr) {
        throw std::runtime_error{"Cannot reach the daemon: " + error.text()};
    }
    g_signal_connect(gateway_.get(), "request-data", G_CALLBACK(requestData), this);
    g_signal_connect(gateway_.get(), "error-signal", G_CALLBACK(errorSignal), this);
}

// Step 2: a connection holds what all its requests have in common.
void ExampleClient::openConnection() {
    ErrorSlot error;
    guint connection = 0;
    if (orvexd_gateway_call_connect_sync(
            gateway_.get(), byteArray(kElementName), byteArray(kType), byteArray(kVersion),
            byteArray(kTransferEncoding), byteArray(kContentType), kChunkSize,
            G_DBUS_CALL_FLAGS_NONE, -1, &connection, nullptr, error.out()) == FALSE) {
        throw std::runtime_error{"connect: " + error.text()};
    }
    connection_ = connection;
}

// Step 3: the request. The daemon may ask for its data before this reply is here; the signal then
// waits in the main loop, which does not run yet.
void ExampleClient::createRequest() {
    ErrorSlot error;
    guint request = 0;
    if (orvexd_gateway_call_prepare_sync(gateway_.get(), *connection_, kPolicy, kOpenDuration,
                                         G_DBUS_CALL_FLAGS_NONE, -1, &request, nullptr,
                                         error.out()) == FALSE) {
        throw std::runtime_error{"prepare: " + error.text()};
    }
    request_ = request;
}

// Step 4: the daemon is ready. Signals are broadcast: those of other clients' requests come, too.
void ExampleClient::requestData(OrvexdGateway* /*gateway*/, guint connection, guint request,
                                gpointer self) noexcept {
    auto& client = *static_cast<ExampleClient*>(self);
    if (connection == client.connection_ && request == client.request_ && !client.ended_) {
        client.sendQuestion();
    }
}

// Pieces of bounded size, each after the result of the one before.
void ExampleClient::sendQuestion() {
    std::array<char, kPieceSize> piece{};
    bool last = false;
    while (!last) {
        question_.read(piece.data(), piece.size());
        last = question_.eof();
        if (question_.bad()) {
            return end("Cannot read the question");
        }
        const std::string_view bytes{piece.data(), static_cast<std::size_t>(question_.gcount())};

        ErrorSlot error;
        gint result = 0;
        if (orvexd_gateway_call_send_data_sync(
                gateway_.get(), byteArray(bytes), last ? TRUE : FALSE, *connection_, *request_,
                G_DBUS_CALL_FLAGS_NONE, -1, &result, nullptr, error.out()) == FALSE) {
            return end("sendData: " + error.text());
        }
        if (result == kUnknownRequest) {
            return waitForReason();
        }
        if (result != 0) {
            return end("sendData: the daemon answers " + std::to_string(result));
        }
    }
}

// Step 5: the answer. The daemon holds the call until there is something, which may take minutes,
// so the call has no time-out. There is one call at a time, from the beginning on: it also tells
// when the daemon leaves the bus.
void ExampleClient::fetchChunk() {
    fetching_ = true;
    orvexd_gateway_call_get_data(gateway_.get(), *connection_, *request_, G_DBUS_CALL_FLAGS_NONE,
                                 G_MAXINT, stop_.get(), chunkArrived, this);
}

void ExampleClient::chunkArrived(GObject* gateway, GAsyncResult* result, gpointer self) noexcept {
    auto& client = *static_cast<ExampleClient*>(self);
    client.fetching_ = false;
    ErrorSlot error;
    GVariant* data = nullptr;
    guint deliveryCode = 0;
    if (orvexd_gateway_call_get_data_finish(ORVEXD_GATEWAY(gateway), &data, &deliveryCode, result,
                                            error.out()) == FALSE) {
        if (error.isUnknownRequest()) {
            client.waitForReason();
        } else if (!error.isCancelled()) {
            client.end("getData: " + error.text());
        }
        return;
    }
    const VariantRef owner{data};
    if (!client.ended_) {
        client.takeChunk(
            {static_cast<const char*>(g_variant_get_data(data)), g_variant_get_size(data)},
            deliveryCode);
    }
}

// A chunk may be empty; only its code says whether there is more.
void ExampleClient::takeChunk(std::string_view bytes, guint deliveryCode) {
    std::cout << bytes;
    switch (deliveryCode) {
    case kPartContinues:
    case kPartComplete: // the next chunk begins the next part of the answer
        return fetchChunk();
    case kResponseComplete:
        return std::cout.flush() ? end() : end("Cannot write the answer");
    default:
        return end("getData: unknown delivery code " + std::to_string(deliveryCode));
    }
}

// Requests have failed. This one is among them when its key is in the list; its getData call will
// not be answered any more.
void ExampleClient::errorSignal(OrvexdGateway* /*gateway*/, guint code, const char* message,
                                const char* requests, gpointer self) noexcept {
    auto& client = *static_cast<ExampleClient*>(self);
    if (!client.request_ || client.ended_) {
        return;
    }
    const std::string own =
        std::to_string(*client.connection_) + ':' + std::to_string(*client.request_);
    std::istringstream keys{requests};
    for (std::string key; keys >> key;) {
        if (key == own) {
            return client.end("The request failed with code " + std::to_string(code) + ": " +
                              message);
        }
    }
}

// The daemon has dropped the request. It removes a failed one a moment before it says why.
void ExampleClient::waitForReason() {
    g_timeout_add_seconds(kReasonSeconds, noReasonCame, this);
}

gboolean ExampleClient::noReasonCame(gpointer self) noexcept {
    static_cast<ExampleClient*>(self)->end("The daemon does not know the request any more");
    return G_SOURCE_REMOVE;
}

gboolean ExampleClient::interrupted(gpointer self) noexcept {
    static_cast<ExampleClient*>(self)->end("Interrupted");
    return G_SOURCE_CONTINUE;
}

// A request that somebody else cancels ends in silence.
gboolean ExampleClient::outOfPatience(gpointer self) noexcept {
    static_cast<ExampleClient*>(self)->end("No answer in time");
    return G_SOURCE_CONTINUE;
}

void ExampleClient::end(const std::string& failure) {
    if (ended_) {
        return;
    }
    ended_ = true;
    failure_ = failure;
    g_cancellable_cancel(stop_.get());
    g_main_loop_quit(loop_.get());
}

} // namespace

int main(int count, char* words[]) {
    if (count != 2) {
        std::cerr << "usage: orvexd-example-client FILE\n";
        return 2;
    }
    try {
        ExampleClient{words[1]}.run();
        return EXIT_SUCCESS;
    } catch (const std::exception& failure) {
        std::cerr << "orvexd-example-client: " << failure.what() << '\n';
        return EXIT_FAILURE;
    }
}
