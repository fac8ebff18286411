#include "RequestSession.h"

#include <sstream>

namespace orvexd::ctl {
namespace {

/// A failing exchange drops its requests a moment before it reports why.
constexpr std::chrono::milliseconds kExplanationTime{500};
/// The daemon answers at once unless it is ending or hangs.
constexpr std::chrono::seconds kLastCallTime{5};
constexpr int kSignalBase = 128;
constexpr std::uint32_t kNotAccepting = 57;

bool needsExplanation(const Failure& failure) {
    switch (failure.status()) {
    case ExitStatus::UnknownRequest:
    case ExitStatus::UnknownConnection:
    case ExitStatus::NotAccepting:
        return true;
    default:
        return false;
    }
}

} // namespace

RequestSession::RequestSession(Client& client, const RequestOptions& options, DataSource& source,
                               AnswerSink& sink, Progress& progress)
    : client_{client},
      options_{options},
      source_{source},
      sink_{sink},
      progress_{progress},
      loop_{g_main_loop_new(nullptr, FALSE)},
      stop_{g_cancellable_new()},
      signals_{[this](int signal) { interrupted(signal); }} {
    client_.onRequestData = [this](std::uint32_t connection, std::uint32_t request) {
        dataWanted(connection, request);
    };
    client_.onError = [this](const Failure& failure, const std::string& keys) {
        errorReported(failure, keys);
    };
    client_.onCancelled = [this](std::uint32_t connection, std::uint32_t request) {
        cancelled(connection, request);
    };
    client_.onGone = [this] { vanished_.whenIdle([this] { daemonGone(); }); };
}

RequestSession::~RequestSession() {
    client_.onRequestData = nullptr;
    client_.onError = nullptr;
    client_.onCancelled = nullptr;
    client_.onGone = nullptr;
}

template <typename Result>
std::function<void(Outcome<Result>)> RequestSession::then(void (RequestSession::*step)(Result)) {
    ++underWay_;
    return [this, step](Outcome<Result> outcome) {
        --underWay_;
        if (auto* const failure = std::get_if<Failure>(&outcome)) {
            failed(*failure);
        } else {
            (this->*step)(std::move(std::get<Result>(outcome)));
        }
        leaveWhenIdle();
    };
}

std::function<void(Outcome<std::uint32_t>)>
RequestSession::thenOpen(void (RequestSession::*step)(std::uint32_t)) {
    opening_ = true;
    return [this, next = then(step)](Outcome<std::uint32_t> outcome) {
        opening_ = false;
        next(std::move(outcome));
    };
}

ExitStatus RequestSession::run() {
    progressed();
    if (options_.timeout.count() != 0) {
        watchForSilence(options_.timeout);
    }
    progress_.setState("connecting");
    progress_.setTotal(source_.size());
    client_.openConnection(options_.connection, thenOpen(&RequestSession::connected));
    g_main_loop_run(loop_.get());
    if (failure_) {
        throw Failure{*failure_};
    }
    return status_;
}

void RequestSession::connected(std::uint32_t connection) {
    connection_ = connection;
    if (ended_) {
        return close();
    }
    progressed();
    client_.createRequest(connection, options_.request, thenOpen(&RequestSession::created));
}

void RequestSession::created(std::uint32_t request) {
    request_ = request;
    progress_.setKey(keyOf(request));
    if (ended_) {
        return close();
    }
    progressed();
    progress_.setState("waiting");
    if (const auto error = earlyErrors_.find(keyOf(request)); error != earlyErrors_.end()) {
        return fail(error->second);
    }
    fetchChunk();
    if (earlyWanted_.contains(request)) {
        dataWanted(*connection_, request);
    }
}

void RequestSession::dataWanted(std::uint32_t connection, std::uint32_t request) {
    if (connection != connection_ || ended_) {
        return;
    }
    if (!request_) {
        earlyWanted_.insert(request);
        return;
    }
    if (request != request_ || upload_ != Upload::NotWanted) {
        return;
    }
    progressed();
    upload_ = Upload::Running;
    progress_.setState("sending");
    readPiece();
}

void RequestSession::readPiece() {
    source_.read(stop_.get(), then(&RequestSession::sendPiece));
}

void RequestSession::sendPiece(BytesRef bytes) {
    if (ended_ || explain_.isRunning()) {
        return;
    }
    pieceSize_ = g_bytes_get_size(bytes.get());
    lastPiece_ = pieceSize_ == 0;
    client_.sendPiece(*connection_, *request_, bytes.get(), lastPiece_,
                      then(&RequestSession::pieceSent));
}

void RequestSession::pieceSent(Done /*done*/) {
    progress_.addSent(pieceSize_);
    if (lastPiece_) {
        upload_ = Upload::Complete;
    }
    if (ended_ || explain_.isRunning()) {
        return;
    }
    progressed();
    if (!lastPiece_) {
        return readPiece();
    }
    if (answered_) {
        return endWhenComplete();
    }
    progress_.setState("waiting for the answer");
}

void RequestSession::fetchChunk() {
    client_.fetchChunk(*connection_, *request_, stop_.get(), then(&RequestSession::writeChunk));
}

void RequestSession::writeChunk(Chunk chunk) {
    if (ended_) {
        return;
    }
    progressed();
    if (upload_ != Upload::Running) {
        progress_.setState("receiving");
    }
    delivery_ = chunk.delivery;
    progress_.addReceived(g_variant_get_size(chunk.bytes.get()));
    try {
        sink_.write(std::move(chunk.bytes), stop_.get(), then(&RequestSession::chunkWritten));
    } catch (const Failure& failure) {
        fail(failure);
    }
}

void RequestSession::chunkWritten(Done /*done*/) {
    // While an explanation is awaited the request has failed, whatever the server makes of its
    // torso.
    if (ended_ || explain_.isRunning()) {
        return;
    }
    progressed();
    try {
        if (delivery_ == Delivery::ResponseComplete) {
            sink_.end();
            answered_ = true;
            return endWhenComplete();
        }
        if (delivery_ == Delivery::PartComplete) {
            sink_.endPart();
        }
    } catch (const Failure& failure) {
        return fail(failure);
    }
    fetchChunk();
}

void RequestSession::endWhenComplete() {
    // The daemon closes the part of a slow client, and the server may answer such a torso: the
    // request has succeeded only when the daemon took the whole input.
    if (upload_ == Upload::Running) {
        return;
    }
    progress_.setState("done");
    end();
}

void RequestSession::errorReported(const Failure& failure, const std::string& keys) {
    if (ended_ || !connection_) {
        return;
    }
    std::istringstream list{keys};
    for (std::string key; list >> key;) {
        if (!request_) {
            earlyErrors_.emplace(key, failure);
        } else if (key == keyOf(*request_)) {
            return fail(failure);
        }
    }
}

void RequestSession::cancelled(std::uint32_t connection, std::uint32_t request) {
    // The daemon would not tell: it just stays silent from now on.
    if (connection == connection_ && request == request_) {
        fail(Failure{ExitStatus::Cancelled,
                     "Another client cancelled the request. 'orvexctl monitor' shows who does so; "
                     "send it again."});
    }
}

void RequestSession::daemonGone() {
    gone_ = true;
    // Everything has arrived on both sides, only the file is not written yet.
    if (delivery_ == Delivery::ResponseComplete && upload_ != Upload::Running) {
        return;
    }
    fail(Failure::daemonGone());
}

void RequestSession::interrupted(int signal) {
    // Whoever asks twice does not want to wait for the daemon.
    if (ended_) {
        g_main_loop_quit(loop_.get());
        return;
    }
    status_ = static_cast<ExitStatus>(kSignalBase + signal);
    progress_.setState("cancelling");
    end();
}

void RequestSession::failed(const Failure& failure) {
    if (ended_) {
        return close();
    }
    if (explain_.isRunning()) {
        return;
    }
    if (answered_ && needsExplanation(failure)) {
        fail(Failure::fromCode(kNotAccepting));
    } else if (needsExplanation(failure)) {
        explain_.once(kExplanationTime, [this, failure] { fail(failure); });
    } else if (failure.status() == ExitStatus::NoDaemon && connection_) {
        daemonGone();
    } else {
        fail(failure);
    }
}

void RequestSession::fail(const Failure& failure) {
    if (ended_) {
        return;
    }
    failure_ = failure;
    progress_.setState("failed");
    end();
}

void RequestSession::end() {
    ended_ = true;
    silence_.stop();
    explain_.stop();
    vanished_.stop();
    g_cancellable_cancel(stop_.get());
    lastCall_.once(kLastCallTime, [this] { g_main_loop_quit(loop_.get()); });
    close();
}

void RequestSession::close() {
    // The reply under way may bring the id that is to be closed.
    if (opening_ || closing_) {
        return;
    }
    closing_ = true;
    if (gone_ || !connection_) {
        closed_ = true;
        return leaveWhenIdle();
    }
    if (request_) {
        abandonRequest();
    }
    ++underWay_;
    client_.closeConnection(*connection_, [this](const Outcome<Done>& /*outcome*/) {
        --underWay_;
        closed_ = true;
        leaveWhenIdle();
    });
}

void RequestSession::abandonRequest() {
    if (!answered_) {
        client_.cancel(*connection_, *request_);
    }
    if (upload_ != Upload::Running) {
        return;
    }
    // The daemon would wait for the rest, and everybody's requests with it.
    const BytesRef nothing{g_bytes_new_static(nullptr, 0)};
    ++underWay_;
    client_.sendPiece(*connection_, *request_, nothing.get(), true,
                      [this](const Outcome<Done>& /*outcome*/) {
                          --underWay_;
                          leaveWhenIdle();
                      });
}

void RequestSession::leaveWhenIdle() {
    if (closed_ && underWay_ == 0) {
        g_main_loop_quit(loop_.get());
    }
}

void RequestSession::progressed() {
    lastProgress_ = std::chrono::steady_clock::now();
}

void RequestSession::watchForSilence(std::chrono::milliseconds delay) {
    silence_.once(delay, [this] {
        const auto silent = std::chrono::duration_cast<std::chrono::milliseconds>(
            std::chrono::steady_clock::now() - lastProgress_);
        if (silent < options_.timeout) {
            return watchForSilence(options_.timeout - silent);
        }
        fail(
            Failure{ExitStatus::TimedOut,
                    "No progress for " + std::to_string(options_.timeout.count()) +
                        " seconds. An attached request waits for another exchange; allow more time "
                        "with --timeout, and look at 'orvexctl status' and 'orvexctl monitor'."});
    });
}

std::string RequestSession::keyOf(std::uint32_t request) const {
    return std::to_string(*connection_) + ":" + std::to_string(request);
}

} // namespace orvexd::ctl
