#pragma once

#include "http/DataSignal.h"
#include "support/MainLoopPost.h"
#include "support/Statistics.h"
#include "support/Threads.h"

#include <glib.h>
#include <memory>
#include <string>
#include <vector>

namespace orvexd {

class HttpClient;
class IExchangeOwner;
class RequestData;

/// One exchange with the server: its queue of requests, its run on a worker thread, its outcome.
///
/// The main loop assembles and starts it. Then the queue belongs to the worker, which touches the
/// requests and the signal for client data, asks the client and the owner what they offer to the
/// worker, and touches nothing else of the main loop's. Its last act is to post the outcome. All
/// operations run on the main loop's thread unless they say otherwise.
class Exchange {
public:
    /// @param client carries the transfer; must outlive this object.
    /// @param owner is asked and told; must outlive this object.
    Exchange(HttpClient& client, IExchangeOwner& owner) noexcept;
    /// Waits for the worker, see `cancelTransfer`. What it posts from now on reaches nobody.
    ~Exchange();
    Exchange(const Exchange&) = delete;
    Exchange& operator=(const Exchange&) = delete;

    /// Puts a request at its place in the queue and makes it Queued. Before `start`.
    void addPart(const std::shared_ptr<RequestData>& request);

    /// Starts the worker.
    /// @return false when the system has no thread to give. The requests are in no exchange then.
    [[nodiscard]] bool start();

    /// Waits until the worker has ended. Nothing happens when there is none.
    void join() noexcept { worker_.join(); }

    /// True from `start` until the outcome has reached the main loop. By then the queue is empty:
    /// the owner holds the last references to its requests.
    [[nodiscard]] bool isTransferRunning() const noexcept { return stage_ == Stage::Running; }

    /// True once the outcome is known and is a failure: the next exchange may start at once.
    [[nodiscard]] bool hasFailed() const noexcept { return stage_ == Stage::Failed; }

    /// Client data has been stored for a request: wakes the worker that waits for it.
    void notifyData() { dataSignal_.notifyData(); }

    /// The client of a request has left: the worker that waits for its data looks at the deadline
    /// again.
    void notifyDeadline() { dataSignal_.notifyDeadline(); }

    /// Aborts the running upload at its next read callback. A worker that waits for client data
    /// notices when its wait ends, which takes up to 90 s for a fingerprint.
    void cancelTransfer() { dataSignal_.requestCancel(); }

    /// Entry of the worker thread: runs the exchange that `exchange` points to.
    static gpointer threadFunc(gpointer exchange) noexcept;

    /// The exchange end to end. Worker thread.
    void runExchange();

private:
    /// Running ends when the outcome arrives; nothing leads back.
    enum class Stage { Assembled, Running, Succeeded, Failed };

    /// What the worker's last post carries.
    struct Outcome {
        int code = 0;          ///< 0 or one of the failure codes
        std::string errorText; ///< libcurl's or the parser's
        std::string keyList;   ///< keys of the requests that are not delivered, in transfer order
    };

    [[nodiscard]] Outcome transferQueue();
    [[nodiscard]] Outcome transfer();
    [[nodiscard]] std::string unfinishedKeys() const;
    void end(const Outcome& outcome);

    HttpClient& client_;
    IExchangeOwner& owner_;
    Stage stage_ = Stage::Assembled;                  // main loop's thread
    std::vector<std::shared_ptr<RequestData>> queue_; // worker from `start` on
    DataSignal dataSignal_;
    Lifetime lifetime_;
    MainLoopTimer endTimer_;
    [[no_unique_address, maybe_unused]] Counted<Statistic::Exchanges> counted_;
    WorkerThread worker_; // last: it is joined before anything that it uses goes
};

} // namespace orvexd
