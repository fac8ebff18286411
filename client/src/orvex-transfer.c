#include "orvex-transfer.h"

#include "orvex-download.h"
#include "orvex-failure.h"
#include "orvex-silence.h"
#include "orvex-upload.h"
#include "orvex-worker.h"

enum {
    REASON_MS = 2000,         ///< a failing exchange drops its requests before it says why
    DOUBT_MS = 1000,          ///< between two questions whether the daemon still knows a request
    TOO_SLOW_REASON_MS = 500, ///< a slow client's part is closed without another word
};

/// What was told of a request before the reply that names ours.
typedef struct {
    guint request;
    GError* error; ///< NULL: its data is wanted
} Early;

struct OrvexTransfer {
    OrvexPassenger passenger;
    OrvexTerms terms;
    guint timeout; ///< seconds without progress; 0: no limit
    OrvexDialogue* dialogue;
    OrvexQuestion* question;
    OrvexUpload* upload;
    OrvexAnswer* answer;
    OrvexDownload* download;
    OrvexProgress* progress;
    OrvexSilence* silence;

    // The worker's own.
    GList* early;     ///< of Early
    gboolean opening; ///< a call that brings a number is under way
    GError* refusal;  ///< an explanation of it is awaited
    GError* failure;  ///< what is told when everything is closed
    gboolean over;    ///< answered, failed or given up: only the clean-up is left
    gboolean closed;  ///< the end may be told
    gboolean told;
    GSource* cancelled;
    GSource* explain;
    GSource* doubt; ///< somebody may have cancelled it
    GSource* last_call;
};

OrvexAnswer* orvex_transfer_get_answer(OrvexTransfer* t) {
    return t->answer;
}

OrvexProgress* orvex_transfer_get_progress(OrvexTransfer* t) {
    return t->progress;
}

/// Whether the daemon has accepted the request.
static gboolean has_number(const OrvexTransfer* t) {
    return orvex_dialogue_get_request(t->dialogue) != 0;
}

/// Whether it is this request that the daemon calls so.
static gboolean is_named(const OrvexTransfer* t, guint request) {
    return has_number(t) && request == orvex_dialogue_get_request(t->dialogue);
}

/// Whether the last chunk has come.
static gboolean is_answered(const OrvexTransfer* t) {
    return orvex_download_is_complete(t->download);
}

// -- the end -------------------------------------------------------------------------------------

static void tell_end(OrvexTransfer* t) {
    if (t->told) {
        return;
    }
    t->told = TRUE;
    orvex_dialogue_finish(t->dialogue);
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

static void stream_is_free(gpointer transfer) {
    OrvexTransfer* t = transfer;
    if (t->closed) {
        tell_end(t);
        orvex_dialogue_let_go(t->dialogue);
    }
}

static void disconnected(gpointer transfer, GVariant* reply, GError* error) {
    (void)reply, (void)error;
    tell_end_when_read(transfer);
}

/// Takes what is left back, and tells the end then.
static void close_connection(OrvexTransfer* t) {
    if (t->opening) { // the reply brings what is to be closed
        return;
    }
    if (!orvex_dialogue_has_daemon(t->dialogue)) {
        tell_end_when_read(t);
        return;
    }
    if (has_number(t) && !is_answered(t)) {
        orvex_dialogue_cancel(t->dialogue);
    }
    if (orvex_upload_is_running(t->upload)) {
        orvex_dialogue_end_question(t->dialogue);
    }
    orvex_dialogue_disconnect(t->dialogue, disconnected, t);
}

static gboolean out_of_patience(gpointer transfer) {
    OrvexTransfer* t = orvex_counted_ref(transfer);
    tell_end(t);
    orvex_dialogue_let_go(t->dialogue);
    orvex_counted_unref(t);
    return G_SOURCE_REMOVE;
}

/// The daemon forgets the held call of a request that ends, and does not answer it.
static guint calls_to_be_lost(const OrvexTransfer* t) {
    const guint fetches = orvex_download_is_fetching(t->download) ? 1 : 0;
    return orvex_upload_is_sending(t->upload) ? fetches + 1 : fetches;
}

static void end(OrvexTransfer* t) {
    t->over = TRUE;
    orvex_source_clear(&t->cancelled);
    orvex_silence_stop(t->silence);
    orvex_source_clear(&t->explain);
    orvex_progress_stop(t->progress);
    orvex_source_clear(&t->doubt);
    orvex_dialogue_leave_seat(t->dialogue, calls_to_be_lost(t));
    orvex_download_stop(t->download);
    orvex_upload_hold(t->upload);
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
    t->last_call = orvex_worker_timer(ORVEX_LAST_CALL_MS, out_of_patience, t);
    close_connection(t);
    orvex_dialogue_let_go(t->dialogue);
    orvex_counted_unref(t);
}

static void succeed(OrvexTransfer* t) {
    orvex_counted_ref(t);
    end(t);
    orvex_progress_set_state(t->progress, ORVEX_REQUEST_STATE_ANSWERED);
    t->last_call = orvex_worker_timer(ORVEX_LAST_CALL_MS, out_of_patience, t);
    tell_end_when_read(t); // nobody has to wait until the connection is closed
    close_connection(t);
    orvex_dialogue_let_go(t->dialogue);
    orvex_counted_unref(t);
}

/// The answer is good once nothing speaks against it any more, and the daemon has the whole
/// question: it closes the part of a slow client, and the server may answer such a torso.
static void succeed_if_complete(gpointer transfer) {
    OrvexTransfer* t = transfer;
    if (is_answered(t) && orvex_download_is_settled(t->download) && !t->over &&
        t->refusal == NULL && !orvex_upload_is_running(t->upload)) {
        succeed(t);
    }
}

// -- what ends it before -------------------------------------------------------------------------

static void abandon(gpointer transfer) {
    fail(transfer,
         g_error_new_literal(G_IO_ERROR, G_IO_ERROR_CANCELLED, "The request was given up"));
}

void orvex_transfer_abandon(OrvexTransfer* t) {
    orvex_worker_post(abandon, orvex_counted_ref(t), orvex_counted_unref);
}

static gboolean on_cancelled(GCancellable* cancellable, gpointer transfer) {
    (void)cancellable;
    fail(transfer, orvex_failure_cancelled());
    return G_SOURCE_REMOVE;
}

/// The question cannot be read, or the answer is none. Takes the error.
static void unusable(gpointer transfer, GError* error) {
    fail(transfer, error);
}

/// Whether it is the reader for whom everything waits. When he has just read, the next call for a
/// chunk is on its way to this thread.
static gboolean waits_for_reader(gpointer transfer) {
    const OrvexTransfer* t = transfer;
    const gboolean is_next_call_due = orvex_download_has_begun(t->download) && !is_answered(t) &&
                                      !orvex_download_is_fetching(t->download);
    return (orvex_answer_is_paused(t->answer) || is_next_call_due) &&
           !orvex_upload_is_running(t->upload);
}

static void silent_for_too_long(gpointer transfer) {
    fail(transfer, orvex_failure_new(ORVEX_ERROR_TIMED_OUT, 0, NULL));
}

static const OrvexSilenceFunctions silence_functions = {
    .is_excused = waits_for_reader,
    .is_too_long = silent_for_too_long,
};

static void daemon_gone(gpointer transfer) {
    OrvexTransfer* t = transfer;
    if (t->over) {
        return;
    }
    orvex_dialogue_forget_daemon(t->dialogue);
    const gboolean is_whole = is_answered(t) && orvex_download_is_settled(t->download);
    if (is_whole && t->refusal == NULL && !orvex_upload_is_running(t->upload)) {
        succeed(t); // everything has arrived on both sides, and nothing can speak against it
    } else {
        fail(t, orvex_failure_new(ORVEX_ERROR_DAEMON_GONE, 0, NULL));
    }
}

static void lose_daemon(gpointer transfer) {
    OrvexTransfer* t = transfer;
    if (orvex_dialogue_has_daemon(t->dialogue)) { // behind the replies that came before
        orvex_post(orvex_worker_context(), G_PRIORITY_LOW, daemon_gone, orvex_counted_ref(t),
                   orvex_counted_unref);
    }
}

static gboolean nothing_explained(gpointer transfer) {
    OrvexTransfer* t = transfer;
    fail(t, g_steal_pointer(&t->refusal));
    return G_SOURCE_REMOVE;
}

/// A step has failed; decides whether to wait for a better explanation. Does not take the error.
static void step_failed(gpointer transfer, const GError* error) {
    OrvexTransfer* t = transfer;
    if (t->over || t->refusal != NULL) {
        return;
    }
    const gboolean slow = g_error_matches(error, ORVEX_ERROR, ORVEX_ERROR_TOO_SLOW);
    if (slow || g_error_matches(error, ORVEX_ERROR, ORVEX_ERROR_DROPPED) ||
        g_error_matches(error, ORVEX_ERROR, ORVEX_ERROR_CANCELLED)) {
        if (is_answered(t)) { // the part was closed, and the server has answered the torso
            fail(t, orvex_failure_from_code(ORVEX_CODE_NOT_ACCEPTING, TRUE));
            return;
        }
        if (!has_number(t)) { // nothing can explain it
            fail(t, g_error_copy(error));
            return;
        }
        t->refusal = g_error_copy(error);
        orvex_upload_hold(t->upload);
        orvex_download_hold(t->download);
        t->explain =
            orvex_worker_timer(slow ? TOO_SLOW_REASON_MS : REASON_MS, nothing_explained, t);
    } else if (orvex_dialogue_has_daemon(t->dialogue) && orvex_failure_is_loss(error)) {
        lose_daemon(t);
    } else {
        fail(t, g_error_copy(error));
    }
}

// -- the question --------------------------------------------------------------------------------

static void question_has_piece(gpointer transfer) {
    const OrvexTransfer* t = transfer;
    orvex_upload_pump(t->upload);
}

static const OrvexQuestionFunctions question_functions = {
    .has_piece = question_has_piece,
    .failed = unusable,
    .is_free = stream_is_free,
};

static void begin_upload(OrvexTransfer* t) {
    orvex_silence_break(t->silence);
    orvex_upload_begin(t->upload);
    orvex_progress_set_state(t->progress, ORVEX_REQUEST_STATE_SENDING);
}

static void piece_sent(gpointer transfer, gsize size) {
    OrvexTransfer* t = transfer;
    orvex_download_note_piece(t->download);
    orvex_progress_count(t->progress, size, 0);
    if (t->over || t->refusal != NULL) {
        return;
    }
    orvex_silence_break(t->silence);
    if (orvex_upload_is_complete(t->upload) && !orvex_download_has_begun(t->download)) {
        orvex_progress_set_state(t->progress, ORVEX_REQUEST_STATE_SENT);
    }
    succeed_if_complete(t);
}

static const OrvexUploadFunctions upload_functions = {.sent = piece_sent, .failed = step_failed};

// -- the answer ----------------------------------------------------------------------------------

static void chunk_came(gpointer transfer, gsize size) {
    OrvexTransfer* t = transfer;
    orvex_silence_break(t->silence);
    if (!orvex_upload_is_running(t->upload)) {
        orvex_progress_set_state(t->progress, ORVEX_REQUEST_STATE_RECEIVING);
    }
    orvex_progress_count(t->progress, 0, size);
    if (!is_answered(t) || !orvex_upload_is_complete(t->upload)) {
        orvex_answer_wake(t->answer); // else the end wakes the reader in a moment
    }
    succeed_if_complete(t);
}

static const OrvexDownloadFunctions download_functions = {
    .came = chunk_came,
    .failed = step_failed,
    .is_unusable = unusable,
    .settling = {.settled = succeed_if_complete, .daemon_gone = lose_daemon},
};

static void fetch(gpointer transfer) {
    const OrvexTransfer* t = transfer;
    orvex_silence_break(t->silence); // the time in which it waited for its reader does not count
    orvex_download_fetch(t->download);
}

static void reader_has_room(gpointer transfer) {
    orvex_worker_post(fetch, orvex_counted_ref(transfer), orvex_counted_unref);
}

// -- doubt ---------------------------------------------------------------------------------------

/// Whether the daemon still knows the request, after a failure of which it may have been part.
static void probed(gpointer transfer, GVariant* reply, GError* error) {
    OrvexTransfer* t = transfer;
    gint code = 0;
    if (error == NULL) {
        g_variant_get(reply, "(i)", &code);
    }
    if (code != ORVEX_CODE_UNKNOWN_REQUEST || is_answered(t)) {
        return;
    }
    g_autoptr(GError) dropped = t->doubt != NULL ? orvex_failure_new(ORVEX_ERROR_CANCELLED, 0, NULL)
                                                 : orvex_failure_from_code((guint)code, TRUE);
    step_failed(t, dropped);
}

/// Asks the daemon whether it still knows the request: the result of an empty piece tells.
static void probe(OrvexTransfer* t) {
    if (has_number(t) && !t->over && !is_answered(t) && !orvex_upload_is_sending(t->upload) &&
        !orvex_upload_is_running(t->upload)) {
        orvex_dialogue_probe(t->dialogue, orvex_upload_is_complete(t->upload), probed, t);
    }
}

static gboolean probe_again(gpointer transfer) {
    OrvexTransfer* t = transfer;
    orvex_source_clear(&t->doubt);
    t->doubt = orvex_worker_timer(DOUBT_MS, probe_again, t);
    probe(t);
    return G_SOURCE_REMOVE;
}

// -- what the daemon tells -----------------------------------------------------------------------

static void early_free(gpointer data) {
    Early* early = data;
    g_clear_error(&early->error);
    g_free(early);
}

/// Takes the error.
static void keep_for_later(OrvexTransfer* t, guint request, GError* error) {
    Early* early = g_new(Early, 1);
    *early = (Early){request, error};
    t->early = g_list_append(t->early, early);
}

static void told_data_wanted(OrvexPassenger* passenger, guint request) {
    OrvexTransfer* t = (OrvexTransfer*)passenger;
    if (t->over) {
        return;
    }
    if (!has_number(t)) {
        keep_for_later(t, request, NULL);
    } else if (is_named(t, request) && !orvex_upload_has_begun(t->upload)) {
        begin_upload(t);
    }
}

static gboolean told_failed(OrvexPassenger* passenger, guint request, guint code,
                            const char* message) {
    OrvexTransfer* t = (OrvexTransfer*)passenger;
    if (t->over) {
        return TRUE;
    }
    if (!has_number(t)) {
        keep_for_later(t, request, orvex_failure_from_signal(code, message));
        return TRUE;
    }
    if (!is_named(t, request)) {
        return FALSE;
    }
    fail(t, orvex_failure_from_signal(code, message));
    return TRUE;
}

static void told_exchange_failed(OrvexPassenger* passenger, guint code, const char* message) {
    OrvexTransfer* t = (OrvexTransfer*)passenger;
    // The failure of an exchange names those that are not answered. This one seems to be: its end
    // is still held back, and its part may be the one in which the transfer broke off.
    if (!is_answered(t)) { // or its last chunk and the failure have missed each other
        probe(t);
    } else if (!orvex_failure_is_before_exchange(code, message)) {
        fail(t, orvex_failure_new(ORVEX_ERROR_TRUNCATED, code, message));
    }
}

static void told_may_be_cancelled(OrvexPassenger* passenger, guint request) {
    OrvexTransfer* t = (OrvexTransfer*)passenger;
    // A cancelled request stays until its exchange ends, and nothing is told then.
    if (is_named(t, request) && !t->over) {
        probe_again(t);
    }
}

static void told_cancelled(OrvexPassenger* passenger, guint request) {
    OrvexTransfer* t = (OrvexTransfer*)passenger;
    if (is_named(t, request)) {
        fail(t, orvex_failure_new(ORVEX_ERROR_CANCELLED, 0, NULL));
    }
}

static void told_daemon_gone(OrvexPassenger* passenger) {
    lose_daemon(passenger);
}

static const OrvexPassengerFunctions passenger_functions = {
    .data_wanted = told_data_wanted,
    .failed = told_failed,
    .exchange_failed = told_exchange_failed,
    .may_be_cancelled = told_may_be_cancelled,
    .cancelled = told_cancelled,
    .daemon_gone = told_daemon_gone,
};

// -- the beginning -------------------------------------------------------------------------------

/// Applies what was told before the reply that names the request.
static void catch_up(OrvexTransfer* t) {
    const guint request = orvex_dialogue_get_request(t->dialogue);
    gboolean wanted = FALSE;
    for (GList* each = t->early; each != NULL; each = each->next) {
        Early* early = each->data;
        if (early->request == request && early->error != NULL) {
            fail(t, g_steal_pointer(&early->error));
            return;
        }
        wanted = wanted || early->request == request;
    }
    if (wanted) {
        told_data_wanted(&t->passenger, request);
    }
}

static void prepared(gpointer transfer, GVariant* reply, GError* error) {
    OrvexTransfer* t = transfer;
    (void)reply;
    t->opening = FALSE;
    if (error == NULL) {
        orvex_progress_set_key(t->progress, orvex_dialogue_get_connection(t->dialogue),
                               orvex_dialogue_get_request(t->dialogue));
    }
    if (t->over) {
        close_connection(t);
        return;
    }
    if (error != NULL) {
        step_failed(t, error);
        return;
    }
    orvex_silence_break(t->silence);
    fetch(t);
    orvex_progress_set_state(t->progress, ORVEX_REQUEST_STATE_WAITING);
    catch_up(t);
}

static void connected(gpointer transfer, GVariant* reply, GError* error) {
    OrvexTransfer* t = transfer;
    (void)reply;
    t->opening = FALSE;
    if (t->over) {
        close_connection(t);
    } else if (error != NULL && !orvex_dialogue_is_connected(t->dialogue)) {
        fail(t, orvex_failure_new(ORVEX_ERROR_NO_BUS, 0, NULL)); // nothing had begun
    } else if (error != NULL) {
        step_failed(t, error);
    } else if (!orvex_dialogue_has_daemon(t->dialogue)) { // it has left since
        fail(t, orvex_failure_new(ORVEX_ERROR_DAEMON_GONE, 0, NULL));
    } else {
        orvex_silence_break(t->silence);
        orvex_dialogue_listen(t->dialogue);
        t->opening = TRUE;
        orvex_dialogue_prepare(t->dialogue, &t->terms, prepared, t);
    }
}

static void sit(gpointer transfer, OrvexLink* link) {
    const OrvexTransfer* t = transfer;
    if (!t->over) {
        orvex_dialogue_sit(t->dialogue, link);
    }
}

static void board(gpointer transfer) {
    OrvexTransfer* t = transfer;
    if (t->over) {
        return;
    }
    t->opening = orvex_dialogue_connect(t->dialogue, &t->terms, connected, t);
    if (!t->opening) {
        abandon(t);
    }
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
    if (!orvex_dialogue_can_begin(t->dialogue)) {
        fail(t, orvex_failure_new(ORVEX_ERROR_NO_BUS, 0, NULL));
        return;
    }
    orvex_silence_begin(t->silence, t->timeout);
    orvex_question_read_ahead(t->question);
    orvex_dialogue_find_seat(t->dialogue, &seats_functions);
}

void orvex_transfer_start(OrvexTransfer* t, GTask* task) {
    orvex_answer_begin(t->answer, task);
    orvex_progress_begin(t->progress);
    orvex_worker_post(start, orvex_counted_ref(t), orvex_counted_unref);
}

// -- life ----------------------------------------------------------------------------------------

static void transfer_free(gpointer data) {
    OrvexTransfer* t = data;
    orvex_terms_clear(&t->terms);
    g_list_free_full(t->early, early_free);
    g_clear_error(&t->refusal);
    g_clear_error(&t->failure);
    orvex_silence_free(t->silence);
    orvex_progress_free(t->progress);
    orvex_download_free(t->download);
    orvex_answer_free(t->answer);
    orvex_upload_free(t->upload);
    orvex_question_free(t->question);
    orvex_dialogue_free(t->dialogue);
    g_free(t);
}

OrvexTransfer* orvex_transfer_new(OrvexSeats* seats, const OrvexPlan* plan) {
    OrvexTransfer* t = g_new0(OrvexTransfer, 1);
    orvex_counted_init(t, transfer_free);
    t->passenger.functions = &passenger_functions;
    t->terms = plan->terms;
    t->timeout = plan->timeout;
    t->dialogue = orvex_dialogue_new(seats, &t->passenger);
    t->question = orvex_question_new(&plan->question, &question_functions, t);
    t->upload = orvex_upload_new(t->question, t->dialogue, &upload_functions, t);
    t->answer = orvex_answer_new(t, reader_has_room, plan->collect, plan->answer_limit);
    t->download = orvex_download_new(t->answer, t->dialogue, &download_functions, t);
    t->progress = orvex_progress_new(&plan->listener);
    t->silence = orvex_silence_new(&silence_functions, t);
    return t;
}
