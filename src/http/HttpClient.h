#pragma once

#include "config/MapWrapper.h"
#include "support/CurlHandles.h"

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <curl/curl.h>
#include <string>
#include <string_view>
#include <vector>

namespace orvexd {

class IExchangeOwner;
class RequestBody;
class SlpResponseParser;

/// Notices a transfer that costs much processor time and brings next to nothing: a server can keep
/// the worker busy with records, chunks or parts that hold a byte each. One thread only.
class ProcessorLimit {
public:
    /// Bytes that have to come ...
    static constexpr std::uint64_t kLeastBytes = std::uint64_t{1024} * 1024;
    /// ... for this much of the thread's processor time.
    static constexpr std::chrono::seconds kMostTime{10};

    /// How a time is read; tests have a clock of their own.
    using Clock = std::chrono::nanoseconds (*)() noexcept;

    /// @param clock processor time of the calling thread.
    explicit ProcessorLimit(Clock clock = &threadTime) noexcept
        : clock_(clock), beginning_(clock()) {}

    /// @param bytes of the message and its answer that have travelled so far.
    /// @return true when the time for the next bytes is used up.
    [[nodiscard]] bool isExceeded(std::uint64_t bytes) noexcept {
        const std::chrono::nanoseconds now = clock_();
        if (bytes - bytesBefore_ < kLeastBytes) {
            return now - beginning_ >= kMostTime;
        }
        bytesBefore_ = bytes;
        beginning_ = now;
        return false;
    }

    /// Processor time of the calling thread: clock_gettime(2), CLOCK_THREAD_CPUTIME_ID.
    static std::chrono::nanoseconds threadTime() noexcept {
        timespec time{};
        (void)clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time); // cannot fail with this clock
        return std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec);
    }

private:
    const Clock clock_;
    std::chrono::nanoseconds beginning_;
    std::uint64_t bytesBefore_ = 0;
};

/// Everything that touches libcurl: its global state, the handle of a transfer with TLS, the
/// time-outs, the callbacks. A handle lives for one transfer, so every exchange opens its own
/// connection and negotiates TLS anew.
///
/// The main loop's thread makes and destroys the client; the worker transfers, one exchange at a
/// time.
class HttpClient {
public:
    /// Copies the time-outs from the settings loaded so far; main() loads the file later.
    /// @param owner names the proxy; must outlive this object.
    explicit HttpClient(IExchangeOwner& owner);
    /// No transfer may run any more.
    ~HttpClient();
    HttpClient(const HttpClient&) = delete;
    HttpClient& operator=(const HttpClient&) = delete;

    /// Parameter map of all clients of the process: time-outs and device identifiers. Any thread.
    static Parameters& getConfiguration();
    /// Stores a value; a later one for the same key replaces it. Main loop's thread.
    static void setParameter(const std::string& key, const std::string& value);
    /// As `setParameter`, but an empty value changes nothing.
    static void setParameterIfSet(const std::string& key, const std::string& value);

    /// Makes a libcurl handle with the identity of the platform's directory. A handle that exists
    /// is left as it is. Worker thread.
    /// @return 0, or 57 when libcurl has no handle to give.
    static int setupHandle(EasyHandle& handle);

    /// Posts `body` and feeds the response to `parser`. Worker thread; takes as long as the
    /// time-outs of the transfer and of the clients' data allow.
    /// @return 0, or 43 on any failure of libcurl, whose text is then in `errorText`.
    int performTransfer(const std::vector<std::string>& headerLines, RequestBody& body,
                        SlpResponseParser& parser);

    /// libcurl's text for the failure of the last transfer. Worker thread.
    [[nodiscard]] const std::string& errorText() const noexcept { return errorText_; }

    /// The next transfer must not reuse a cached connection: the network has changed. Main loop's
    /// thread; the worker takes the wish when it sets up its next transfer.
    void requestFreshConnect() noexcept { freshConnectRequested_ = true; }

    /// Would restrict the cipher list to AES256-SHA. It is not installed on purpose: the default of
    /// the TLS library is in force.
    static CURLcode sslContextCallback(CURL* handle, void* sslContext, void* userData) noexcept;

    /// Renders bytes, 16 a line, in hexadecimal and as characters. Nothing calls it; it is for the
    /// debugger.
    [[nodiscard]] static std::string hexDump(std::string_view bytes);

private:
    struct Transfer;

    // Steps of performTransfer, on the worker; libcurl copies or keeps what each is given.
    static void setTransferOptions(CURL* handle, const HeaderList& headers, char* errorBuffer);
    void setCallbacks(CURL* handle, Transfer& transfer);
    static void showTransfer(const Transfer& transfer, CURLcode result);
    static void showVerifyResult(CURL* handle);

    /// libcurl's write callback: response bytes for the parser. It never ends a transfer by what
    /// the bytes are, only when the parser has given up or stalled.
    static std::size_t writeResponse(char* data, std::size_t size, std::size_t count,
                                     void* transfer) noexcept;
    /// libcurl's read callback: the next bytes of the message. It may wait for a client.
    static std::size_t readBody(char* buffer, std::size_t size, std::size_t count,
                                void* transfer) noexcept;

    IExchangeOwner& owner_;
    std::string errorText_; // worker thread
    std::atomic<bool> freshConnectRequested_ = false;
};

} // namespace orvexd
