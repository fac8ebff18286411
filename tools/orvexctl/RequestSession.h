#pragma once

#include "AnswerSink.h"
#include "Awaited.h"
#include "DataSource.h"
#include "Progress.h"
#include "RequestOptions.h"
#include "StartWatch.h"
#include "StepLog.h"
#include "StopSignals.h"
#include "Timer.h"

#include <chrono>
#include <functional>
#include <optional>
#include <orvexclient.h>

namespace orvexd::ctl {

/// One whole request: what the client library does not know of it, which is where the answer goes,
/// what people see meanwhile, and what a signal means.
class RequestSession {
public:
    /// All arguments outlive the session.
    RequestSession(const RequestOptions& options, DataSource& source, AnswerSink& sink,
                   Progress& progress, StepLog& steps);
    ~RequestSession();
    RequestSession(const RequestSession&) = delete;
    RequestSession& operator=(const RequestSession&) = delete;

    /// Runs the main loop until the request is answered, has failed or was interrupted.
    /// @return Success, or the status of the signal that interrupted it. @throws Failure
    ExitStatus run();

private:
    /// Makes the handler of the one operation that is under way.
    template <typename Result>
    std::function<void(Outcome<Result>)> then(void (RequestSession::*step)(Result));

    void open();
    void opened(Done);
    void send();
    void readPart(ObjectRef<GInputStream> part);
    void readChunk();
    void writeChunk(BytesRef bytes);
    void chunkWritten(Done);
    void goToNextPart();

    void interrupted(int signal);
    void fail(const Failure& failure);
    [[nodiscard]] Failure failureOf(const GError& error) const;
    [[nodiscard]] Awaited awaited() const;
    void tellStep(OrvexRequestState state);

    static void stateChanged(OrvexRequest* request, OrvexRequestState state,
                             gpointer self) noexcept;
    static void moved(OrvexRequest* request, guint64 sent, guint64 received,
                      gpointer self) noexcept;

    const RequestOptions& options_;
    DataSource& source_;
    AnswerSink& sink_;
    Progress& progress_;
    StepLog& steps_;

    MainLoopRef loop_;
    ObjectRef<GCancellable> stop_;
    StopSignals signals_;
    Timer patience_; ///< with the bus
    ObjectRef<OrvexClient> client_;
    std::optional<StartWatch> start_;
    ObjectRef<OrvexRequest> request_;
    ObjectRef<GInputStream> part_; ///< of the answer, being read
    unsigned partNumber_ = 0;
    OrvexRequestState reached_ = ORVEX_REQUEST_STATE_IDLE; ///< before it failed
    std::chrono::steady_clock::time_point moved_;          ///< when that was, or bytes went
    std::optional<Failure> failure_;
    ExitStatus status_ = ExitStatus::Success;
};

} // namespace orvexd::ctl
