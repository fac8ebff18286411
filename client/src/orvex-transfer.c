#include "orvex-transfer.h"

#include "orvex-calls.h"
#include "orvex-failure.h"
#include "orvex-names.h"
#include "orvex-worker.h"

#include <stdatomic.h>
#include <string.h>

enum {
    CALL_TIMEOUT_MS = 60 * 1000,
    LAST_CALL_MS = 2000,      ///< the daemon answers at once unless it hangs
    REASON_MS = 2000,         ///< a failing exchange drops its requests before it says why
    DOUBT_MS = 1000,          ///< between two questions whether the daemon still knows a request
    TOO_SLOW_REASON_MS = 500, ///< a slow client's part is closed without another word
};

// A transfer that breaks off within the last part of an answer completes the part: the last chunk
// comes as if the answer were whole, and right behind it the failure of the exchange. The daemon
// tells it one turn of its main loop later, so that it comes before the answers to two calls. What
// the daemon's worker needs in between is half a millisecond, or some time slices where others want
// the processor: how long the two calls take tells how busy the machine is. An answer whose only
// chunk is longer than a boundary cannot have broken off: its bytes would have come before.
enum {
    SETTLE_CALLS = 2,
    SETTLE_LEAST_MS = 10,
    SETTLE_TURNS = 8, ///< times as long as the calls took
    SETTLE_MOST_MS = 30,
    BOUNDARY_SIZE = 256, ///< more than a boundary with its line ends
};

enum { PART_CONTINUES = 2301, PART_COMPLETE = 2302, RESPONSE_COMPLETE = 2303 };

typedef enum { UPLOAD_NOT_WANTED, UPLOAD_RUNNING, UPLOAD_COMPLETE } Upload;

/// What was told of a request before the reply that names ours.
typedef struct {
    guint request;
    GError* error; ///< NULL: its data is wanted
} Early;

struct OrvexTransfer {
    OrvexPassenger passenger;
    OrvexSeats* seats; ///< the client's; NULL when everything is over
    OrvexLink* link;   ///< on which it sits; likewise
    OrvexPlan plan;
    OrvexProgress* progress;
    OrvexAnswer* answer;

    // The worker's own.
    char* owner; ///< the daemon, by its unique name: numbers mean nothing to another one
    guint connection;
    guint request;
    GList* early;      ///< of Early
    gboolean opening;  ///< a call that brings a number is under way
    gboolean fetching; ///< getData is under way
    gboolean sending;  ///< sendData is under way
    gboolean seated;   ///< it counts for the link
    guint calls;       ///< that are under way
    OrvexQuestion* question;
    gboolean last_piece; ///< the piece under way is the last one
    gsize piece_size;
    Upload upload;
    guint chunks;      ///< that have come
    gboolean answered; ///< the last chunk has come
    gboolean may_be_torn;
    gint64 last_chunk; ///< when it came
    guint turns;       ///< calls behind it that are not answered
    gboolean settled;  ///< nothing holds the answer's end back any more
    GError* refusal;   ///< an explanation of it is awaited
    GError* failure;   ///< what is told when everything is closed
    gboolean over;     ///< answered, failed or given up: only the clean-up is left
    gboolean closed;   ///< the end may be told
    gboolean told;
    GCancellable* stop; ///< ends the calls that may last
    GSource* cancelled;
    GSource* silence;
    GSource* explain;
    GSource* doubt; ///< somebody may have cancelled it
    GSource* settling;
    GSource* last_call;
    gint64 progressed; ///< when something went on
};

// -- life ----------------------------------------------------------------------------------------

static void early_free(gpointer data) {
    Early* early = data;
    g_clear_error(&early->error);
    g_free(early);
}

static void plan_clear(OrvexPlan* plan) {
    g_free(plan->element);
    g_free(plan->type);
    g_free(plan->version);
    g_free(plan->encoding);
    g_free(plan->content_type);
}

static void transfer_free(gpointer data) {
    OrvexTransfer* t = data;
    plan_clear(&t->plan);
    orvex_progress_free(t->progress);
    g_free(t->owner);
    g_list_free_full(t->early, early_free);
    orvex_question_free(t->question);
    orvex_answer_free(t->answer);
    g_clear_error(&t->refusal);
    g_clear_error(&t->failure);
    g_object_unref(t->stop);
    g_clear_pointer(&t->link, orvex_counted_unref);
    g_clear_pointer(&t->seats, orvex_counted_unref);
    g_free(t);
}

// -- calls ---------------------------------------------------------------------------------------

typedef void (*Done)(OrvexTransfer* transfer, GVariant* reply, GError* error);

typedef struct {
    OrvexTransfer* transfer;
    Done done;
} Call;

/// When everything is over, a request that its user keeps must not keep a connection to the bus.
static void let_go(OrvexTransfer* t) {
    if (t->told && t->calls == 0) {
        g_clear_pointer(&t->link, orvex_counted_unref);
        g_clear_pointer(&t->seats, orvex_counted_unref);
    }
}

static void call_answered(GObject* bus, GAsyncResult* result, gpointer data) {
    Call* call = data;
    GError* failure = NULL;
    g_autoptr(GVariant) reply =
        g_dbus_connection_call_finish(G_DBUS_CONNECTION(bus), result, &failure);
    g_autoptr(GError) error = NULL;
    if (reply == NULL) {
        const OrvexStatus status = orvex_link_get_status(call->transfer->link);
        error = orvex_failure_from_call(failure, (status & ORVEX_STATUS_CONNECTED) != 0);
    }
    --call->transfer->calls;
    call->done(call->transfer, reply, error);
    let_go(call->transfer);
    orvex_counted_unref(call->transfer);
    g_free(call);
}

/// @param done gets the reply or an error of this library, neither of which it owns
static void call(OrvexTransfer* t, const char* interface, const char* member, GVariant* arguments,
                 const char* reply, int timeout, GCancellable* cancellable, Done done) {
    Call* data = g_new(Call, 1);
    *data = (Call){orvex_counted_ref(t), done};
    ++t->calls;
    // Only the first call starts a daemon. From then on it is this one or none.
    g_dbus_connection_call(
        orvex_link_get_bus(t->link), t->owner != NULL ? t->owner : ORVEX_BUS_NAME, ORVEX_PATH,
        interface, member, arguments, G_VARIANT_TYPE(reply),
        t->owner != NULL ? G_DBUS_CALL_FLAGS_NO_AUTO_START : G_DBUS_CALL_FLAGS_NONE, timeout,
        cancellable, call_answered, data);
}

// -- the end -------------------------------------------------------------------------------------

static void tell_end(OrvexTransfer* t) {
    if (t->told) {
        return;
    }
    t->told = TRUE;
    orvex_source_clear(&t->last_call);
    orvex_progress_end(t->progress, t->failure);
    orvex_answer_end(t->answer, g_steal_pointer(&t->failure));
}

/// Tells the end, unless the question's stream is still in use: its owner may send it again.
static void tell_end_when_read(OrvexTransfer* t) {
    t->closed = TRUE;
    if (!orvex_question_is_reading(t->question)) {
        tell_end(t);
    }
}

static void closed(OrvexTransfer* t, GVariant* reply, GError* error) {
    (void)reply;
    if (g_error_matches(error, ORVEX_ERROR, ORVEX_ERROR_LIMITS) && t->owner != NULL) {
        orvex_send(orvex_link_get_bus(t->link), t->owner, "disconnect",
                   g_variant_new("(u)", t->connection));
    }
    // Another daemon that cannot be told has forgotten it.
    orvex_remains_note_closed(orvex_link_get_remains(t->link), t);
    tell_end_when_read(t);
}

/// Takes what is left back, and tells the end then.
static void close_connection(OrvexTransfer* t) {
    if (t->opening) { // the reply brings what is to be closed
        return;
    }
    if (t->owner == NULL) {
        tell_end_when_read(t);
        return;
    }
    if (t->request != 0 && !t->answered) {
        // Broadcast, as the daemon's own signals are: monitors see who cancelled what.
        (void)g_dbus_connection_emit_signal(orvex_link_get_bus(t->link), NULL, ORVEX_PATH,
                                            ORVEX_INTERFACE, "cancel",
                                            g_variant_new("(uu)", t->connection, t->request), NULL);
    }
    if (t->upload == UPLOAD_RUNNING) {
        orvex_send_end_of_question(orvex_link_get_bus(t->link), t->owner, t->connection,
                                   t->request);
    }
    call(t, ORVEX_INTERFACE, "disconnect", g_variant_new("(u)", t->connection), "()", LAST_CALL_MS,
         NULL, closed);
}

static gboolean out_of_patience(gpointer transfer) {
    OrvexTransfer* t = orvex_counted_ref(transfer);
    tell_end(t);
    let_go(t);
    orvex_counted_unref(t);
    return G_SOURCE_REMOVE;
}

/// The daemon forgets the held call of a request that ends, and does not answer it.
static guint calls_to_be_lost(OrvexTransfer* t) {
    const guint fetches = t->fetching ? 1 : 0;
    return t->sending ? fetches + 1 : fetches;
}

static void end(OrvexTransfer* t) {
    t->over = TRUE;
    orvex_source_clear(&t->cancelled);
    orvex_source_clear(&t->silence);
    orvex_source_clear(&t->explain);
    orvex_source_clear(&t->settling);
    orvex_progress_stop(t->progress);
    orvex_source_clear(&t->doubt);
    if (t->connection != 0) {
        orvex_passengers_remove(orvex_link_get_passengers(t->link), t->connection, &t->passenger);
    }
    if (t->seated) {
        t->seated = FALSE;
        orvex_seats_leave(t->seats, t->link, t->owner != NULL ? calls_to_be_lost(t) : 0);
    }
    g_cancellable_cancel(t->stop);
    orvex_question_stop(t->question);
}

/// Takes the error. The first end counts.
static void fail(OrvexTransfer* t, GError* error) {
    if (t->over) {
        g_error_free(error);
        return;
    }
    orvex_counted_ref(t);
    t->failure = error;
    end(t);
    orvex_progress_set_state(t->progress, ORVEX_REQUEST_STATE_FAILED);
    t->last_call = orvex_worker_timer(LAST_CALL_MS, out_of_patience, t);
    close_connection(t);
    let_go(t);
    orvex_counted_unref(t);
}

static void succeed(OrvexTransfer* t) {
    orvex_counted_ref(t);
    end(t);
    orvex_progress_set_state(t->progress, ORVEX_REQUEST_STATE_ANSWERED);
    t->last_call = orvex_worker_timer(LAST_CALL_MS, out_of_patience, t);
    tell_end_when_read(t); // nobody has to wait until the connection is closed
    close_connection(t);
    let_go(t);
    orvex_counted_unref(t);
}

/// The answer is good once nothing speaks against it any more, and the daemon has the whole
/// question: it closes the part of a slow client, and the server may answer such a torso.
static void succeed_if_complete(OrvexTransfer* t) {
    if (t->answered && t->settled && !t->over && t->refusal == NULL &&
        t->upload != UPLOAD_RUNNING) {
        succeed(t);
    }
}

static void abandon(gpointer transfer) {
    OrvexTransfer* t = transfer;
    fail(t, g_error_new_literal(G_IO_ERROR, G_IO_ERROR_CANCELLED, "The request was given up"));
}

void orvex_transfer_abandon(OrvexTransfer* t) {
    orvex_worker_post(abandon, orvex_counted_ref(t), orvex_counted_unref);
}

static gboolean on_cancelled(GCancellable* cancellable, gpointer transfer) {
    GError* error = NULL;
    g_cancellable_set_error_if_cancelled(cancellable, &error);
    fail(transfer, error);
    return G_SOURCE_REMOVE;
}

static void daemon_gone(gpointer transfer) {
    OrvexTransfer* t = transfer;
    if (t->over) {
        return;
    }
    g_clear_pointer(&t->owner, g_free); // nobody is left to be told anything
    orvex_remains_note_closed(orvex_link_get_remains(t->link), t);
    const gboolean is_whole = t->answered && (t->settled || !t->may_be_torn);
    if (is_whole && t->refusal == NULL && t->upload != UPLOAD_RUNNING) {
        succeed(t); // everything has arrived on both sides, and nothing can speak against it
    } else {
        fail(t, orvex_failure_new(ORVEX_ERROR_DAEMON_GONE, 0, NULL));
    }
}

static void lose_daemon(OrvexTransfer* t) {
    if (t->owner != NULL) { // behind the replies that came before
        orvex_post(orvex_worker_context(), G_PRIORITY_LOW, daemon_gone, orvex_counted_ref(t),
                   orvex_counted_unref);
    }
}

static gboolean nothing_explained(gpointer transfer) {
    OrvexTransfer* t = transfer;
    fail(t, g_steal_pointer(&t->refusal));
    return G_SOURCE_REMOVE;
}

/// Whether a call that was begun with a daemon has found none at its end.
static gboolean is_loss(const GError* error) {
    return g_error_matches(error, ORVEX_ERROR, ORVEX_ERROR_NOT_INSTALLED) ||
           g_error_matches(error, ORVEX_ERROR, ORVEX_ERROR_DAEMON_GONE) ||
           g_error_matches(error, ORVEX_ERROR, ORVEX_ERROR_NO_BUS);
}

/// A step has failed; decides whether to wait for a better explanation. Does not take the error.
static void step_failed(OrvexTransfer* t, const GError* error) {
    if (t->over || t->refusal != NULL) {
        return;
    }
    const gboolean slow = g_error_matches(error, ORVEX_ERROR, ORVEX_ERROR_TOO_SLOW);
    if (slow || g_error_matches(error, ORVEX_ERROR, ORVEX_ERROR_DROPPED) ||
        g_error_matches(error, ORVEX_ERROR, ORVEX_ERROR_CANCELLED)) {
        if (t->answered) { // the part was closed, and the server has answered the torso
            fail(t, orvex_failure_from_code(ORVEX_CODE_NOT_ACCEPTING, TRUE));
            return;
        }
        if (t->request == 0) { // nothing can explain it
            fail(t, g_error_copy(error));
            return;
        }
        t->refusal = g_error_copy(error);
        t->explain =
            orvex_worker_timer(slow ? TOO_SLOW_REASON_MS : REASON_MS, nothing_explained, t);
    } else if (t->owner != NULL && is_loss(error)) {
        lose_daemon(t);
    } else {
        fail(t, g_error_copy(error));
    }
}

// -- silence -------------------------------------------------------------------------------------

static void progressed(OrvexTransfer* t) {
    t->progressed = g_get_monotonic_time();
}

static void watch_for_silence(OrvexTransfer* t, gint64 microseconds);

/// Whether it is the reader for whom everything waits.
static gboolean waits_for_reader(OrvexTransfer* t) {
    return orvex_answer_is_paused(t->answer) && t->upload != UPLOAD_RUNNING;
}

static gboolean on_silence(gpointer transfer) {
    OrvexTransfer* t = transfer;
    if (waits_for_reader(t)) {
        progressed(t);
    }
    const gint64 limit = (gint64)t->plan.timeout * G_USEC_PER_SEC;
    const gint64 silent = g_get_monotonic_time() - t->progressed;
    if (silent < limit) {
        watch_for_silence(t, limit - silent);
    } else {
        fail(t, orvex_failure_new(ORVEX_ERROR_TIMED_OUT, 0, NULL));
    }
    return G_SOURCE_REMOVE;
}

static void watch_for_silence(OrvexTransfer* t, gint64 microseconds) {
    const gint64 milliseconds = MIN(microseconds / 1000 + 1, (gint64)G_MAXUINT);
    orvex_source_clear(&t->silence);
    t->silence = orvex_worker_timer((guint)milliseconds, on_silence, t);
}

// -- the question --------------------------------------------------------------------------------

static void pump(gpointer transfer);

/// The stream is free again.
static void stream_is_free(gpointer transfer) {
    OrvexTransfer* t = transfer;
    if (t->closed) {
        tell_end(t);
        let_go(t);
    }
}

static void stream_failed(gpointer transfer, GError* error) {
    fail(transfer, error);
}

static void piece_sent(OrvexTransfer* t, GVariant* reply, GError* error) {
    gint code = 0;
    t->sending = FALSE;
    if (error != NULL) {
        step_failed(t, error);
        return;
    }
    g_variant_get(reply, "(i)", &code);
    if (code != 0) {
        g_autoptr(GError) refused = orvex_failure_from_code((guint)code, TRUE);
        step_failed(t, refused);
        return;
    }
    orvex_progress_count(t->progress, t->piece_size, 0);
    if (t->last_piece) {
        t->upload = UPLOAD_COMPLETE;
        orvex_remains_note_open(orvex_link_get_remains(t->link), t, t->connection, t->request,
                                FALSE);
    }
    if (t->over || t->refusal != NULL) {
        return;
    }
    progressed(t);
    if (t->last_piece && t->chunks == 0) {
        orvex_progress_set_state(t->progress, ORVEX_REQUEST_STATE_SENT);
    }
    succeed_if_complete(t);
    pump(t);
}

/// Sends the next piece, if it is there and wanted. One is under way at a time: the daemon holds
/// the reply back while the server is slower.
static void pump(gpointer transfer) {
    OrvexTransfer* t = transfer;
    if (t->over || t->refusal != NULL || t->sending || t->upload != UPLOAD_RUNNING) {
        return;
    }
    g_autoptr(GBytes) piece = orvex_question_take_piece(t->question, &t->last_piece);
    if (piece == NULL) {
        return;
    }
    t->sending = TRUE;
    t->piece_size = g_bytes_get_size(piece);
    GVariant* bytes = g_variant_new_from_bytes(G_VARIANT_TYPE_BYTESTRING, piece, TRUE);
    call(t, ORVEX_INTERFACE, "sendData",
         g_variant_new("(@aybuu)", bytes, t->last_piece, t->connection, t->request), "(i)",
         CALL_TIMEOUT_MS, NULL, piece_sent);
}

static const OrvexQuestionFunctions question_functions = {
    .has_piece = pump,
    .failed = stream_failed,
    .is_free = stream_is_free,
};

static void told_data_wanted(OrvexPassenger* passenger, guint request) {
    OrvexTransfer* t = (OrvexTransfer*)passenger;
    if (t->over) {
        return;
    }
    if (t->request == 0) {
        Early* early = g_new0(Early, 1);
        early->request = request;
        t->early = g_list_append(t->early, early);
        return;
    }
    if (request != t->request || t->upload != UPLOAD_NOT_WANTED) {
        return;
    }
    progressed(t);
    t->upload = UPLOAD_RUNNING;
    orvex_remains_note_open(orvex_link_get_remains(t->link), t, t->connection, t->request, TRUE);
    pump(t);
    orvex_progress_set_state(t->progress, ORVEX_REQUEST_STATE_SENDING);
}

// -- the answer ----------------------------------------------------------------------------------

static void fetch(OrvexTransfer* t);

static void settle(OrvexTransfer* t) {
    t->settled = TRUE;
    succeed_if_complete(t);
}

static gboolean settled(gpointer transfer) {
    settle(transfer);
    return G_SOURCE_REMOVE;
}

/// A call behind the last chunk is answered.
static void turned(OrvexTransfer* t, GVariant* reply, GError* error) {
    (void)reply;
    if (g_error_matches(error, ORVEX_ERROR, ORVEX_ERROR_DAEMON_GONE) ||
        g_error_matches(error, ORVEX_ERROR, ORVEX_ERROR_NOT_INSTALLED)) {
        lose_daemon(t); // it cannot speak against the answer any more
        return;
    }
    if (error != NULL || --t->turns > 0 || t->over || t->settled) {
        return;
    }
    const gint64 took = (g_get_monotonic_time() - t->last_chunk) / 1000;
    const gint64 wanted = MAX(SETTLE_LEAST_MS, SETTLE_TURNS * took);
    if (!t->may_be_torn || took >= SETTLE_MOST_MS) {
        settle(t);
    } else {
        orvex_source_clear(&t->settling);
        t->settling = orvex_worker_timer((guint)(MIN(wanted, SETTLE_MOST_MS) - took), settled, t);
    }
}

/// The last chunk has come: waits for what may speak against it.
static void begin_to_settle(OrvexTransfer* t, gsize last) {
    t->answered = TRUE;
    t->may_be_torn = t->chunks > 1 || last <= BOUNDARY_SIZE;
    t->last_chunk = g_get_monotonic_time();
    t->turns = SETTLE_CALLS;
    t->settling = orvex_worker_timer(SETTLE_MOST_MS, settled, t);
    for (int number = 0; number < SETTLE_CALLS; ++number) {
        call(t, "org.freedesktop.DBus.Peer", "Ping", NULL, "()", LAST_CALL_MS, NULL, turned);
    }
}

static void chunk_came(OrvexTransfer* t, GVariant* reply, GError* error) {
    t->fetching = FALSE;
    if (error != NULL) {
        step_failed(t, error);
        return;
    }
    if (t->over) {
        return;
    }
    g_autoptr(GVariant) array = NULL;
    guint code = 0;
    g_variant_get(reply, "(@ayu)", &array, &code);
    g_autoptr(GBytes) bytes = g_variant_get_data_as_bytes(array);
    const gsize size = g_bytes_get_size(bytes);
    if (code < PART_CONTINUES || code > RESPONSE_COMPLETE) {
        fail(t, orvex_failure_new(ORVEX_ERROR_PROTOCOL, code, NULL));
        return;
    }
    if (orvex_answer_is_too_long(t->answer, size)) {
        fail(t, orvex_failure_new(ORVEX_ERROR_TOO_LONG, 0, NULL));
        return;
    }
    progressed(t);
    t->chunks += size > 0 || t->chunks > 0 ? 1 : 0;
    orvex_answer_keep(t->answer, g_steal_pointer(&bytes), code == PART_COMPLETE);
    // The daemon's next step first: who is woken might want its processor.
    if (code == RESPONSE_COMPLETE) {
        begin_to_settle(t, size);
    } else {
        fetch(t);
    }
    if (t->upload != UPLOAD_RUNNING) {
        orvex_progress_set_state(t->progress, ORVEX_REQUEST_STATE_RECEIVING);
    }
    orvex_progress_count(t->progress, 0, size);
    if (!t->answered || t->upload != UPLOAD_COMPLETE) { // else the end wakes the reader in a moment
        orvex_answer_wake(t->answer);
    }
}

/// Asks for the next chunk, unless the reader has as much as it may have. The daemon holds the call
/// until it has something: so without a time-out. A second one would replace it.
static void fetch(OrvexTransfer* t) {
    if (t->over || t->fetching || t->answered || t->refusal != NULL ||
        orvex_answer_is_full(t->answer)) {
        return;
    }
    t->fetching = TRUE;
    call(t, ORVEX_INTERFACE, "getData", g_variant_new("(uu)", t->connection, t->request), "(ayu)",
         G_MAXINT, t->stop, chunk_came);
}

static void fetch_on(gpointer transfer) {
    fetch(transfer);
}

static void reader_has_room(gpointer transfer) {
    orvex_worker_post(fetch_on, orvex_counted_ref(transfer), orvex_counted_unref);
}

// -- what the daemon tells -----------------------------------------------------------------------

static gboolean told_failed(OrvexPassenger* passenger, guint request, guint code,
                            const char* message) {
    OrvexTransfer* t = (OrvexTransfer*)passenger;
    if (t->over) {
        return TRUE;
    }
    if (t->request == 0) {
        Early* early = g_new0(Early, 1);
        early->request = request;
        early->error = orvex_failure_from_signal(code, message);
        t->early = g_list_append(t->early, early);
        return TRUE;
    }
    if (request != t->request) {
        return FALSE;
    }
    fail(t, orvex_failure_from_signal(code, message));
    return TRUE;
}

/// Whether the daemon still knows the request, after a failure of which it may have been part.
static void probed(OrvexTransfer* t, GVariant* reply, GError* error) {
    gint code = 0;
    if (error == NULL) {
        g_variant_get(reply, "(i)", &code);
    }
    if (code != ORVEX_CODE_UNKNOWN_REQUEST || t->answered) {
        return;
    }
    g_autoptr(GError) dropped = t->doubt != NULL ? orvex_failure_new(ORVEX_ERROR_CANCELLED, 0, NULL)
                                                 : orvex_failure_from_code((guint)code, TRUE);
    step_failed(t, dropped);
}

/// Asks the daemon whether it still knows the request.
static void probe(OrvexTransfer* t) {
    if (t->request == 0 || t->over || t->answered || t->sending || t->upload == UPLOAD_RUNNING) {
        return;
    }
    // An empty piece changes nothing as long as it does not take the question's end back, but its
    // result tells.
    GVariant* nothing = g_variant_new_fixed_array(G_VARIANT_TYPE_BYTE, "", 0, 1);
    call(
        t, ORVEX_INTERFACE, "sendData",
        g_variant_new("(@aybuu)", nothing, t->upload == UPLOAD_COMPLETE, t->connection, t->request),
        "(i)", CALL_TIMEOUT_MS, NULL, probed);
}

static void told_exchange_failed(OrvexPassenger* passenger, guint code, const char* message) {
    OrvexTransfer* t = (OrvexTransfer*)passenger;
    // The failure of an exchange names those that are not answered. This one seems to be: its end
    // is still held back, and its part may be the one in which the transfer broke off.
    if (!t->answered) { // or its last chunk and the failure have missed each other
        probe(t);
    } else if (!orvex_failure_is_before_exchange(code, message)) {
        fail(t, orvex_failure_new(ORVEX_ERROR_TRUNCATED, code, message));
    }
}

static gboolean probe_again(gpointer transfer) {
    OrvexTransfer* t = transfer;
    orvex_source_clear(&t->doubt);
    t->doubt = orvex_worker_timer(DOUBT_MS, probe_again, t);
    probe(t);
    return G_SOURCE_REMOVE;
}

static void told_may_be_cancelled(OrvexPassenger* passenger, guint request) {
    OrvexTransfer* t = (OrvexTransfer*)passenger;
    // A cancelled request stays until its exchange ends, and nothing is told then.
    if (t->request != 0 && request == t->request && !t->over) {
        probe_again(t);
    }
}

static void told_cancelled(OrvexPassenger* passenger, guint request) {
    OrvexTransfer* t = (OrvexTransfer*)passenger;
    if (t->request != 0 && request == t->request) {
        fail(t, orvex_failure_new(ORVEX_ERROR_CANCELLED, 0, NULL));
    }
}

// -- the beginning -------------------------------------------------------------------------------

/// Applies what was told before the reply that names the request.
static void catch_up(OrvexTransfer* t) {
    gboolean wanted = FALSE;
    for (GList* each = t->early; each != NULL; each = each->next) {
        Early* early = each->data;
        if (early->request == t->request && early->error != NULL) {
            fail(t, g_steal_pointer(&early->error));
            return;
        }
        wanted = wanted || early->request == t->request;
    }
    if (wanted) {
        told_data_wanted(&t->passenger, t->request);
    }
}

static void created(OrvexTransfer* t, GVariant* reply, GError* error) {
    t->opening = FALSE;
    if (error == NULL) {
        g_variant_get(reply, "(u)", &t->request);
        orvex_remains_note_open(orvex_link_get_remains(t->link), t, t->connection, t->request,
                                FALSE);
        orvex_progress_set_key(t->progress, t->connection, t->request);
    }
    if (t->over) {
        close_connection(t);
        return;
    }
    if (error != NULL) {
        step_failed(t, error);
        return;
    }
    progressed(t);
    fetch(t);
    orvex_progress_set_state(t->progress, ORVEX_REQUEST_STATE_WAITING);
    catch_up(t);
}

static void connected(OrvexTransfer* t, GVariant* reply, GError* error) {
    t->opening = FALSE;
    if (error == NULL) {
        g_variant_get(reply, "(u)", &t->connection);
        t->owner = g_strdup(orvex_link_get_owner(t->link));
        orvex_remains_note_open(orvex_link_get_remains(t->link), t, t->connection, 0, FALSE);
    }
    orvex_remains_end_connect(orvex_link_get_remains(t->link));
    if (t->over) {
        close_connection(t);
        return;
    }
    if (error != NULL && !orvex_link_is_connected(t->link)) {
        fail(t, orvex_failure_new(ORVEX_ERROR_NO_BUS, 0, NULL)); // nothing had begun
        return;
    }
    if (error != NULL) {
        step_failed(t, error);
        return;
    }
    if (t->owner == NULL) { // it has left since
        fail(t, orvex_failure_new(ORVEX_ERROR_DAEMON_GONE, 0, NULL));
        return;
    }
    progressed(t);
    orvex_passengers_add(orvex_link_get_passengers(t->link), t->connection, &t->passenger);
    t->opening = TRUE;
    call(t, ORVEX_INTERFACE, t->plan.attach ? "attach" : "prepare",
         g_variant_new("(uuu)", t->connection, (guint)t->plan.policy, t->plan.open_duration), "(u)",
         CALL_TIMEOUT_MS, NULL, created);
}

/// Exactly the bytes of a text, without a zero byte behind them.
static GVariant* text_bytes(const char* text) {
    return g_variant_new_fixed_array(G_VARIANT_TYPE_BYTE, text, strlen(text), 1);
}

static void sit(gpointer transfer, OrvexLink* link) {
    OrvexTransfer* t = transfer;
    if (t->over) {
        return;
    }
    OrvexLink* before = t->link;
    t->link = orvex_counted_ref(link);
    orvex_link_enter(link);
    if (t->seated) {
        orvex_seats_leave(t->seats, before, 0);
    }
    t->seated = TRUE;
    g_clear_pointer(&before, orvex_counted_unref);
}

static void board(gpointer transfer) {
    OrvexTransfer* t = transfer;
    if (t->over) {
        return;
    }
    if (!orvex_remains_begin_connect(orvex_link_get_remains(t->link))) {
        abandon(t);
        return;
    }
    t->opening = TRUE;
    call(t, ORVEX_INTERFACE, "connect",
         g_variant_new("(@ay@ay@ay@ay@ayu)", text_bytes(t->plan.element), text_bytes(t->plan.type),
                       text_bytes(t->plan.version), text_bytes(t->plan.encoding),
                       text_bytes(t->plan.content_type), t->plan.chunk_size),
         "(u)", CALL_TIMEOUT_MS, NULL, connected);
}

static const OrvexSeatsFunctions seats_functions = {.sit = sit, .board = board};

static void start(gpointer transfer) {
    OrvexTransfer* t = transfer;
    GCancellable* cancellable = orvex_answer_get_cancellable(t->answer);
    if (cancellable != NULL) {
        t->cancelled = g_cancellable_source_new(cancellable);
        g_source_set_callback(t->cancelled, G_SOURCE_FUNC(on_cancelled), t, NULL);
        g_source_attach(t->cancelled, orvex_worker_context());
    }
    if (!orvex_seats_are_connected(t->seats)) {
        fail(t, orvex_failure_new(ORVEX_ERROR_NO_BUS, 0, NULL));
        return;
    }
    progressed(t);
    if (t->plan.timeout != 0) {
        watch_for_silence(t, (gint64)t->plan.timeout * G_USEC_PER_SEC);
    }
    orvex_question_read_ahead(t->question);
    orvex_seats_find(t->seats, &seats_functions, t);
}

static void told_daemon_gone(OrvexPassenger* passenger) {
    lose_daemon((OrvexTransfer*)passenger);
}

static const OrvexPassengerFunctions passenger_functions = {
    .data_wanted = told_data_wanted,
    .failed = told_failed,
    .exchange_failed = told_exchange_failed,
    .may_be_cancelled = told_may_be_cancelled,
    .cancelled = told_cancelled,
    .daemon_gone = told_daemon_gone,
};

OrvexTransfer* orvex_transfer_new(OrvexSeats* seats, OrvexPlan* plan) {
    OrvexTransfer* t = g_new0(OrvexTransfer, 1);
    orvex_counted_init(t, transfer_free);
    t->passenger.functions = &passenger_functions;
    t->seats = orvex_counted_ref(seats);
    t->plan = *plan;
    t->progress = orvex_progress_new(&plan->listener);
    t->question = orvex_question_new(&plan->question, &question_functions, t);
    t->answer = orvex_answer_new(t, reader_has_room, plan->collect, plan->answer_limit);
    t->stop = g_cancellable_new();
    return t;
}

void orvex_transfer_start(OrvexTransfer* t, GTask* task) {
    orvex_answer_begin(t->answer, task);
    orvex_progress_begin(t->progress);
    orvex_worker_post(start, orvex_counted_ref(t), orvex_counted_unref);
}

OrvexProgress* orvex_transfer_get_progress(OrvexTransfer* t) {
    return t->progress;
}

OrvexAnswer* orvex_transfer_get_answer(OrvexTransfer* t) {
    return t->answer;
}
