#pragma once

#include "config/Parameters.h"
#include "core/RequestData.h"
#include "http/DataSignal.h"
#include "http/Exchange.h"
#include "http/IExchangeOwner.h"
#include "slp/SlpResponseParser.h"
#include "support/CurlHandles.h"
#include "support/Locks.h"
#include "support/MainLoopRecord.h"

#include <atomic>
#include <cstdint>
#include <glib.h>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace orvexd {

class RequestBody;

/// Everything that touches libcurl, and one exchange with the server from its header lines to the
/// parsed response.
///
/// Two threads: the main loop assembles an exchange (`addPart`), the worker runs it (`threadFunc`)
/// and reports through IExchangeOwner. At most one exchange runs at a time.
class HttpClient {
public:
    /// Copies the time-outs from the file store, as far as that is filled at this moment.
    explicit HttpClient(IExchangeOwner& owner);
    /// The worker must have been joined.
    virtual ~HttpClient();
    HttpClient(const HttpClient&) = delete;
    HttpClient& operator=(const HttpClient&) = delete;
    HttpClient(HttpClient&&) = delete;
    HttpClient& operator=(HttpClient&&) = delete;

    /// Parameter map of all clients of the process: time-outs and device identifiers.
    static Parameters& getConfiguration();
    static void setParameter(const std::string& key, const std::string& value);
    /// As `setParameter`, but an empty value changes nothing.
    static void setParameterIfSet(const std::string& key, const std::string& value);

    /// Makes the libcurl handle with its TLS options. Nothing changes when one exists.
    /// @return 0, or 57 when libcurl has no handle to give.
    int setupHandle();

    /// Posts `body` and feeds the response to `parser`; the handle is gone afterwards. Worker
    /// thread.
    /// @return 0, or 43 on any failure of libcurl, whose text is then in `errorText`.
    int performTransfer(const std::vector<std::string>& headerLines, RequestBody& body,
                        SlpResponseParser& parser);

    /// Text of the last transfer failure. Worker thread.
    const std::string& errorText() const noexcept { return errorText_; }

    /// Last failure for a debugger or a core dump; it is printed nowhere. Worker thread.
    const std::string& diagnostic() const noexcept { return diagnostic_; }

    /// True from the start of an exchange until its worker is at its end. Any thread.
    bool isTransferRunning() const;

    /// Aborts the running upload at its next read callback. A worker that waits for client data
    /// notices when its wait ends. Main loop's thread.
    void cancelTransfer() { dataSignal_.requestCancel(); }

    /// The next transfer must not reuse a cached connection. Any thread.
    void requestFreshConnect() noexcept { freshConnectRequested_ = true; }

    /// Puts a request into the exchange that is being assembled, at its place in the queue. Main
    /// loop's thread, while no transfer runs.
    void addPart(const std::shared_ptr<RequestData>& request);

    /// Entry of the worker thread: runs the exchange of the client that `client` points to.
    static gpointer threadFunc(gpointer client) noexcept;

    /// One exchange end to end; the outcome goes to the owner. Worker thread.
    void runExchange();

    /// Appends the SLP header part of the running exchange to `bodyPrefix`. @return 0.
    int composeSlpHeaderPart(std::string& bodyPrefix);

    /// Hook that would restrict the cipher list; not installed, the TLS library's default is in
    /// force.
    static CURLcode sslContextCallback(CURL* handle, void* sslContext, void* userData) noexcept;

    /// Clamps the TCP segment size of the connection's socket.
    static int socketOptionCallback(void* client, curl_socket_t socket,
                                    curlsocktype purpose) noexcept;

protected:
    /// Marks the assembled exchange as running, so that the worker can be started. The returned
    /// number comes back in IExchangeOwner::onExchangeDone. Main loop's thread.
    std::uint64_t beginExchange();

    /// Takes `beginExchange` back when no worker could be started. @return its requests, which wait
    /// again.
    std::vector<std::shared_ptr<RequestData>> abandonExchange();

    /// Wakes the worker that waits for client data. Main loop's thread.
    void notifyData() { dataSignal_.notifyData(); }

private:
    struct ExchangeDone;
    struct Upload;

    int transferQueue();
    void endExchange();
    void failExchange(int code);
    std::string unfinishedKeys() const;
    void setTransferRunning(bool running);
    void setTransferOptions(const HeaderList& headers, char* errorBuffer);
    void setCallbacks(Upload& upload, SlpResponseParser& parser);

    static std::size_t writeResponse(char* data, std::size_t size, std::size_t count,
                                     void* parser) noexcept;
    static std::size_t readBody(char* buffer, std::size_t size, std::size_t count,
                                void* upload) noexcept;

    IExchangeOwner& owner_;
    Lifetime lifetime_;
    DataSignal dataSignal_;
    EasyHandle handle_;      // exists during a transfer only; worker thread
    Exchange exchange_;      // main loop's thread while assembled, worker thread while running
    std::string errorText_;  // worker thread
    std::string diagnostic_; // worker thread
    std::uint64_t lastExchange_ = 0; // main loop's thread
    std::atomic<bool> freshConnectRequested_ = false;
    mutable Mutex stateMutex_;
    bool transferRunning_ = false; // guarded by stateMutex_
};

} // namespace orvexd
