#pragma once

#include "AnswerSink.h"
#include "Client.h"
#include "DataSource.h"
#include "Progress.h"
#include "RequestOptions.h"
#include "StopSignals.h"
#include "Timer.h"

#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>

namespace orvexd::ctl {

/// One whole request, from "connect" to "disconnect".
///
/// Upload and download run side by side: the daemon may answer while it still takes bytes, and it
/// tells of a lost network only to clients that wait for a chunk. Each has at most one operation
/// under way, a call or a file operation, so memory stays bounded in both directions. Whatever ends
/// the request, the session cancels what is left of it and disconnects before run() returns: the
/// daemon would keep the remains for ever.
class RequestSession {
public:
    /// All arguments outlive the session.
    RequestSession(Client& client, const RequestOptions& options, DataSource& source,
                   AnswerSink& sink, Progress& progress);
    ~RequestSession();
    RequestSession(const RequestSession&) = delete;
    RequestSession& operator=(const RequestSession&) = delete;

    /// Runs the main loop until the request is answered, has failed or was interrupted.
    /// @return Success, or the status of the signal that interrupted it. @throws Failure
    ExitStatus run();

private:
    /// Makes the handler of one operation; run() does not return before it ran.
    template <typename Result>
    std::function<void(Outcome<Result>)> then(void (RequestSession::*step)(Result));

    /// The same for the calls that bring an id, without which nothing can be closed.
    std::function<void(Outcome<std::uint32_t>)>
    thenOpen(void (RequestSession::*step)(std::uint32_t));

    void connected(std::uint32_t connection);
    void created(std::uint32_t request);

    void dataWanted(std::uint32_t connection, std::uint32_t request);
    void readPiece();
    void sendPiece(BytesRef bytes);
    void pieceSent(Done);

    void fetchChunk();
    void writeChunk(Chunk chunk);
    void chunkWritten(Done);
    void endWhenComplete();

    void errorReported(const Failure& failure, const std::string& keys);
    void cancelled(std::uint32_t connection, std::uint32_t request);
    void daemonGone();
    void interrupted(int signal);

    /// A step failed; decides whether to wait for a better explanation.
    void failed(const Failure& failure);
    void fail(const Failure& failure);
    void end();
    void close();
    void abandonRequest();
    void leaveWhenIdle();

    void progressed();
    void watchForSilence(std::chrono::milliseconds delay);

    [[nodiscard]] std::string keyOf(std::uint32_t request) const;

    Client& client_;
    const RequestOptions& options_;
    DataSource& source_;
    AnswerSink& sink_;
    Progress& progress_;

    MainLoopRef loop_;
    ObjectRef<GCancellable> stop_; ///< ends the operations that may last
    StopSignals signals_;
    Timer silence_;  ///< no progress for too long
    Timer explain_;  ///< time for an errorSignal to overtake a bare refusal
    Timer vanished_; ///< time for replies that came before the daemon left
    Timer lastCall_; ///< time for cancelling and disconnecting

    std::optional<std::uint32_t> connection_;
    std::optional<std::uint32_t> request_;
    /// What arrived for requests of this connection before the reply that names ours.
    std::set<std::uint32_t> earlyWanted_;
    std::map<std::string, Failure> earlyErrors_;

    enum class Upload { NotWanted, Running, Complete };
    Upload upload_ = Upload::NotWanted;
    bool lastPiece_ = false;                      ///< the piece under way is the last one
    std::uint64_t pieceSize_ = 0;                 ///< number of bytes in the piece under way
    Delivery delivery_ = Delivery::PartContinues; ///< of the chunk being written
    bool answered_ = false;

    std::chrono::steady_clock::time_point lastProgress_;
    unsigned underWay_ = 0; ///< operations whose handler has still to run
    bool opening_ = false;  ///< a call that brings an id is under way
    bool ended_ = false;    ///< answered, failed or interrupted: only the clean-up is left
    bool closing_ = false;  ///< the clean-up calls are on their way
    bool closed_ = false;   ///< the clean-up is complete
    bool gone_ = false;     ///< there is no daemon left to clean up
    std::optional<Failure> failure_;
    ExitStatus status_ = ExitStatus::Success;
};

} // namespace orvexd::ctl
