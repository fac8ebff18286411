#include "RequestSession.h"

#include "Bus.h"
#include "ConnectionStatus.h"
#include "PendingCall.h"

namespace orvexd::ctl {
namespace {

constexpr int kSignalBase = 128;
constexpr guint kPieceSize = 64 * 1024;

const char* wordsOf(OrvexRequestState state) {
    switch (state) {
    case ORVEX_REQUEST_STATE_WAITING:
        return "waiting";
    case ORVEX_REQUEST_STATE_SENDING:
        return "sending";
    case ORVEX_REQUEST_STATE_SENT:
        return "waiting for the answer";
    case ORVEX_REQUEST_STATE_RECEIVING:
        return "receiving";
    case ORVEX_REQUEST_STATE_ANSWERED:
        return "done";
    case ORVEX_REQUEST_STATE_FAILED:
        return "failed";
    default:
        return "connecting";
    }
}

/// Whether a request of this policy may use the network.
bool isUsable(OrvexStatus status, std::uint32_t policy) {
    constexpr std::uint32_t kAny = 3;
    const bool restricted = (status & ORVEX_STATUS_FLAGGED) != 0;
    return (status & ORVEX_STATUS_CONNECTED) != 0 &&
           (policy == kAny || (policy == kAny - 1 && !restricted));
}

/// What a request waits for that the daemon has taken.
Awaited awaitedInDaemon(OrvexStatus status, const RequestOptions& options) {
    // Every policy allows a connection of kind 1, and there an attached request starts an exchange.
    if (!options.attach || (status & ORVEX_STATUS_KIND_ONE) != 0) {
        return Awaited::Exchange;
    }
    return isUsable(status, options.policy) ? Awaited::OtherExchange : Awaited::Network;
}

ObjectRef<OrvexRequest> makeRequest(const RequestOptions& options) {
    ObjectRef<OrvexRequest> request{orvex_request_new(options.element.c_str(), options.type.c_str(),
                                                      options.version.c_str(),
                                                      options.contentType.c_str())};
    orvex_request_set_encoding(request.get(), options.encoding.c_str());
    // 0 and 1 mean the same.
    orvex_request_set_policy(request.get(), options.policy <= 1
                                                ? ORVEX_POLICY_KIND_ONE
                                                : static_cast<OrvexPolicy>(options.policy));
    orvex_request_set_open_duration(request.get(), options.openDuration);
    orvex_request_set_attach(request.get(), options.attach ? TRUE : FALSE);
    orvex_request_set_chunk_size(request.get(), options.chunkSize);
    orvex_request_set_piece_size(request.get(), kPieceSize);
    orvex_request_set_timeout(request.get(), static_cast<guint>(options.timeout.count()));
    return request;
}

} // namespace

RequestSession::RequestSession(const RequestOptions& options, DataSource& source, AnswerSink& sink,
                               Progress& progress, StepLog& steps)
    : options_{options},
      source_{source},
      sink_{sink},
      progress_{progress},
      steps_{steps},
      loop_{g_main_loop_new(nullptr, FALSE)},
      stop_{g_cancellable_new()},
      signals_{[this](int signal) { interrupted(signal); }},
      client_{newClient()},
      request_{makeRequest(options)},
      moved_{std::chrono::steady_clock::now()} {
    g_signal_connect(request_.get(), "state-changed", G_CALLBACK(stateChanged), this);
    g_signal_connect(request_.get(), "progress", G_CALLBACK(moved), this);
}

RequestSession::~RequestSession() {
    g_signal_handlers_disconnect_by_data(request_.get(), this);
}

template <typename Result>
std::function<void(Outcome<Result>)> RequestSession::then(void (RequestSession::*step)(Result)) {
    return [this, step](Outcome<Result> outcome) {
        if (auto* const failure = std::get_if<Failure>(&outcome)) {
            return fail(*failure);
        }
        try {
            (this->*step)(std::move(std::get<Result>(outcome)));
        } catch (const Failure& failure) {
            fail(failure);
        }
    };
}

ExitStatus RequestSession::run() {
    progress_.setState("connecting");
    progress_.setTotal(source_.size());
    open();
    g_main_loop_run(loop_.get());
    moved(request_.get(), orvex_request_get_bytes_sent(request_.get()),
          orvex_request_get_bytes_received(request_.get()), this);
    if (status_ != ExitStatus::Success) {
        return status_;
    }
    progress_.setState(failure_ ? "failed" : "done");
    if (failure_) {
        throw Failure{*failure_};
    }
    return status_;
}

void RequestSession::open() {
    const auto finish = [](GObject* client, GAsyncResult* result) -> Outcome<Done> {
        ErrorSlot error;
        if (g_async_initable_init_finish(G_ASYNC_INITABLE(client), result, error.out()) == FALSE) {
            return Failure::fromLibrary(*error);
        }
        return Done{};
    };
    // The library's own limit counts from the request on.
    if (options_.timeout.count() > 0) {
        patience_.once(options_.timeout,
                       [this] { fail(overdue(awaitedBy(client_.get()), options_.timeout)); });
    }
    g_async_initable_init_async(G_ASYNC_INITABLE(client_.get()), G_PRIORITY_DEFAULT, stop_.get(),
                                PendingCall<Done>::finished,
                                PendingCall<Done>::start(then(&RequestSession::opened), finish));
}

void RequestSession::opened(Done /*done*/) {
    patience_.stop();
    if (orvex_client_get_running(client_.get()) != FALSE) {
        steps_.tell("the bus is there, and the daemon: " +
                    connectionStatusLine(orvex_client_get_status(client_.get()), false));
    } else {
        steps_.tell("the bus is there, the daemon is not: the first call starts it");
        start_.emplace(orvex_client_get_connection(client_.get()),
                       [this](const Failure& why) { fail(why); });
    }
    send();
}

void RequestSession::send() {
    using Pending = PendingCall<ObjectRef<GInputStream>>;
    const auto finish = [this](GObject* client,
                               GAsyncResult* result) -> Outcome<ObjectRef<GInputStream>> {
        ErrorSlot error;
        ObjectRef<GInputStream> part{
            orvex_client_send_finish(ORVEX_CLIENT(client), result, error.out())};
        if (error) {
            return failureOf(*error);
        }
        return part;
    };
    orvex_client_send_async(client_.get(), request_.get(), source_.stream(), G_PRIORITY_DEFAULT,
                            stop_.get(), Pending::finished,
                            Pending::start(then(&RequestSession::readPart), finish));
}

/// The first part, or a further one; null when there is none.
void RequestSession::readPart(ObjectRef<GInputStream> part) {
    part_ = std::move(part);
    if (part_ != nullptr) {
        return readChunk();
    }
    sink_.end();
    steps_.tell("the output is in its place");
    g_main_loop_quit(loop_.get());
}

void RequestSession::readChunk() {
    const auto finish = [this](GObject* part, GAsyncResult* result) -> Outcome<BytesRef> {
        ErrorSlot error;
        BytesRef bytes{g_input_stream_read_bytes_finish(G_INPUT_STREAM(part), result, error.out())};
        if (error) {
            return failureOf(*error);
        }
        return bytes;
    };
    g_input_stream_read_bytes_async(
        part_.get(), options_.chunkSize, G_PRIORITY_DEFAULT, stop_.get(),
        PendingCall<BytesRef>::finished,
        PendingCall<BytesRef>::start(then(&RequestSession::writeChunk), finish));
}

void RequestSession::writeChunk(BytesRef bytes) {
    const bool atEnd = g_bytes_get_size(bytes.get()) == 0;
    if (!atEnd) {
        return sink_.write(std::move(bytes), stop_.get(), then(&RequestSession::chunkWritten));
    }
    // Of an empty part, too, there is a file.
    sink_.openPart();
    sink_.endPart();
    steps_.tell("part " + std::to_string(++partNumber_) + " is written");
    goToNextPart();
}

void RequestSession::chunkWritten(Done /*done*/) {
    readChunk();
}

void RequestSession::goToNextPart() {
    using Pending = PendingCall<ObjectRef<GInputStream>>;
    const auto finish = [this](GObject* request,
                               GAsyncResult* result) -> Outcome<ObjectRef<GInputStream>> {
        ErrorSlot error;
        ObjectRef<GInputStream> part{
            orvex_request_next_part_finish(ORVEX_REQUEST(request), result, error.out())};
        if (error) {
            return failureOf(*error);
        }
        return part;
    };
    orvex_request_next_part_async(request_.get(), stop_.get(), Pending::finished,
                                  Pending::start(then(&RequestSession::readPart), finish));
}

void RequestSession::interrupted(int signal) {
    // Whoever asks twice does not want to wait for the daemon.
    if (status_ != ExitStatus::Success) {
        g_main_loop_quit(loop_.get());
        return;
    }
    status_ = static_cast<ExitStatus>(kSignalBase + signal);
    progress_.setState("cancelling");
    steps_.tell("interrupted: the request is taken back");
    g_cancellable_cancel(stop_.get());
}

void RequestSession::fail(const Failure& failure) {
    failure_ = failure;
    g_main_loop_quit(loop_.get());
}

/// The library's own errors, and those of the stream that it reads.
Failure RequestSession::failureOf(const GError& error) const {
    if (error.domain != ORVEX_ERROR) {
        return Failure::fromFile("read " + source_.name(), error);
    }
    if (error.code == ORVEX_ERROR_TIMED_OUT) {
        // With words, one call has taken too long. Without, the whole request has.
        using std::chrono::seconds;
        const bool isCall = orvex_error_get_detail(&error) != nullptr;
        const auto silent = std::chrono::steady_clock::now() - moved_;
        return overdue(awaited(), isCall ? std::chrono::round<seconds>(silent) : options_.timeout);
    }
    // The service manager knows more of it than the bus.
    if (error.code == ORVEX_ERROR_START_FAILED && start_) {
        return start_->failure(Failure::fromLibrary(error));
    }
    return Failure::fromLibrary(error);
}

/// What the request stands and waits for.
Awaited RequestSession::awaited() const {
    switch (reached_) {
    case ORVEX_REQUEST_STATE_WAITING:
        return awaitedInDaemon(orvex_client_get_status(client_.get()), options_);
    case ORVEX_REQUEST_STATE_SENDING:
        return source_.isDry() ? Awaited::Input : Awaited::Upload;
    case ORVEX_REQUEST_STATE_SENT:
        return Awaited::Answer;
    case ORVEX_REQUEST_STATE_RECEIVING:
        return Awaited::RestOfAnswer;
    default:
        return orvex_client_get_running(client_.get()) != FALSE ? Awaited::Daemon : Awaited::Start;
    }
}

void RequestSession::tellStep(OrvexRequestState state) {
    const TextRef key{orvex_request_dup_key(request_.get())};
    const auto bytes = [](guint64 count) { return std::to_string(count) + " bytes"; };
    switch (state) {
    case ORVEX_REQUEST_STATE_CONNECTING:
        return steps_.tell("the daemon is asked to take the request");
    case ORVEX_REQUEST_STATE_WAITING:
        return steps_.tell("the daemon has taken it as request " +
                           std::string{key == nullptr ? "" : key.get()});
    case ORVEX_REQUEST_STATE_SENDING:
        return steps_.tell("the daemon has reached the server and asks for the input");
    case ORVEX_REQUEST_STATE_SENT:
        return steps_.tell("the input is sent, " +
                           bytes(orvex_request_get_bytes_sent(request_.get())));
    case ORVEX_REQUEST_STATE_RECEIVING:
        return steps_.tell("the answer begins");
    case ORVEX_REQUEST_STATE_ANSWERED:
        return steps_.tell("the answer is complete, " +
                           bytes(orvex_request_get_bytes_received(request_.get())));
    case ORVEX_REQUEST_STATE_FAILED:
        return steps_.tell("the request has failed");
    default:
        return;
    }
}

void RequestSession::stateChanged(OrvexRequest* request, OrvexRequestState state,
                                  gpointer self) noexcept {
    auto& session = *static_cast<RequestSession*>(self);
    if (state != ORVEX_REQUEST_STATE_FAILED) {
        session.reached_ = state;
        session.moved_ = std::chrono::steady_clock::now();
    }
    if (state == ORVEX_REQUEST_STATE_WAITING) {
        session.start_.reset(); // it runs, whatever becomes of the unit's next jobs
    }
    session.tellStep(state);
    const TextRef key{orvex_request_dup_key(request)};
    session.progress_.setKey(key == nullptr ? "" : key.get());
    if (session.status_ == ExitStatus::Success) {
        session.progress_.setState(wordsOf(state));
    }
}

void RequestSession::moved(OrvexRequest* /*request*/, guint64 sent, guint64 received,
                           gpointer self) noexcept {
    auto& session = *static_cast<RequestSession*>(self);
    session.moved_ = std::chrono::steady_clock::now();
    session.progress_.setMoved(sent, received);
}

} // namespace orvexd::ctl
