#include "orvex-question.h"

#include "orvex-counted.h"
#include "orvex-rooms.h"
#include "orvex-worker.h"

enum {
    READ_AHEAD = 256 * 1024, ///< bytes that are read before they are wanted
    PIECES_AHEAD = 16,       ///< however small they are
};

typedef struct Reading Reading;

struct OrvexQuestion {
    const OrvexQuestionFunctions* functions;
    gpointer transfer;
    OrvexQuestionSource source;
    gsize offset;      ///< in source.bytes, where the next piece begins
    OrvexRooms* rooms; ///< for the pieces of the stream, as long as there are any
    Reading* reading;  ///< under way, or NULL
    GQueue pieces;     ///< of GBytes: what was read and is not taken
    gsize read_bytes;  ///< in these pieces
    gboolean has_ended;
    gboolean is_stopped;
    GCancellable* stop; ///< ends a reading
};

/// One piece on its way from the stream.
struct Reading {
    OrvexCounted counted;
    atomic_bool claimed; ///< by the reading, or by the stop that comes before
    GSource* source;     ///< that begins to read
    OrvexQuestion* question;
    GInputStream* stream; ///< the question's
    GCancellable* cancellable;
    int io_priority;
    OrvexRoom* room;
    gsize size; ///< of the room; then what was read
    GError* error;
};

// -- life ----------------------------------------------------------------------------------------

OrvexQuestion* orvex_question_new(const OrvexQuestionSource* source,
                                  const OrvexQuestionFunctions* functions, gpointer transfer) {
    OrvexQuestion* question = g_new0(OrvexQuestion, 1);
    question->functions = functions;
    question->transfer = transfer;
    question->source = *source;
    question->rooms = source->stream != NULL ? orvex_rooms_new(source->piece_size) : NULL;
    g_queue_init(&question->pieces);
    question->stop = g_cancellable_new();
    return question;
}

void orvex_question_free(OrvexQuestion* question) {
    g_clear_pointer(&question->source.bytes, g_bytes_unref);
    g_clear_object(&question->source.stream);
    g_clear_pointer(&question->source.context, g_main_context_unref);
    g_queue_clear_full(&question->pieces, (GDestroyNotify)g_bytes_unref);
    g_clear_pointer(&question->rooms, orvex_counted_unref);
    g_object_unref(question->stop);
    g_free(question);
}

static void nothing_to_do(gpointer data) {
    (void)data;
}

/// The stream is freed in the context in which it is used, or with it.
static void drop_stream(OrvexQuestion* question) {
    if (question->source.stream != NULL) {
        orvex_post(question->source.context, G_PRIORITY_DEFAULT, nothing_to_do,
                   g_steal_pointer(&question->source.stream), g_object_unref);
    }
    g_clear_pointer(&question->source.context, g_main_context_unref);
    g_clear_pointer(&question->rooms, orvex_counted_unref);
}

void orvex_question_stop(OrvexQuestion* question) {
    question->is_stopped = TRUE;
    g_clear_pointer(&question->source.bytes, g_bytes_unref);
    g_cancellable_cancel(question->stop);
    if (question->reading != NULL && !atomic_exchange(&question->reading->claimed, TRUE)) {
        g_source_destroy(question->reading->source);
        g_clear_pointer(&question->reading, orvex_counted_unref);
    }
    if (question->reading == NULL) {
        drop_stream(question);
    }
}

gboolean orvex_question_is_reading(const OrvexQuestion* question) {
    return question->reading != NULL;
}

// -- reading -------------------------------------------------------------------------------------

static void reading_free(gpointer data) {
    Reading* reading = data;
    g_clear_pointer(&reading->room, orvex_room_release);
    g_clear_error(&reading->error);
    g_clear_pointer(&reading->source, g_source_unref);
    g_object_unref(reading->cancellable);
    orvex_counted_unref(reading->question->transfer);
    g_free(reading);
}

static void keep_piece(OrvexQuestion* question, Reading* reading) {
    if (reading->size == 0) {
        question->has_ended = TRUE;
        g_clear_pointer(&question->rooms, orvex_counted_unref);
    } else {
        question->read_bytes += reading->size;
        g_queue_push_tail(&question->pieces,
                          orvex_room_to_bytes(g_steal_pointer(&reading->room), reading->size));
        orvex_question_read_ahead(question);
    }
}

static void piece_read(gpointer data) {
    Reading* reading = data;
    OrvexQuestion* question = reading->question;
    const OrvexQuestionFunctions* functions = question->functions;
    g_clear_pointer(&question->reading, orvex_counted_unref);
    g_clear_pointer(&reading->source, g_source_unref); // while its context is held
    if (question->is_stopped) {
        drop_stream(question);
        functions->is_free(question->transfer);
    } else if (reading->error != NULL) {
        functions->failed(question->transfer, g_steal_pointer(&reading->error));
    } else {
        keep_piece(question, reading);
        functions->has_piece(question->transfer);
    }
}

/// In the context of the stream.
static void stream_was_read(GObject* stream, GAsyncResult* result, gpointer data) {
    Reading* reading = data;
    const gssize size = g_input_stream_read_finish(G_INPUT_STREAM(stream), result, &reading->error);
    reading->size = (gsize)MAX(size, 0);
    orvex_worker_post(piece_read, reading, orvex_counted_unref);
}

/// In the context of the stream: only there it may be read.
static void read_stream(gpointer data) {
    Reading* reading = data;
    if (atomic_exchange(&reading->claimed, TRUE)) {
        return;
    }
    GMainContext* context = g_source_get_context(g_main_current_source());
    g_main_context_push_thread_default(context);
    g_input_stream_read_async(reading->stream, reading->room->bytes, reading->size,
                              reading->io_priority, reading->cancellable, stream_was_read,
                              orvex_counted_ref(reading));
    g_main_context_pop_thread_default(context);
}

static void begin_to_read(OrvexQuestion* question) {
    Reading* reading = g_new0(Reading, 1);
    orvex_counted_init(reading, reading_free);
    orvex_counted_ref(question->transfer);
    reading->question = question;
    reading->stream = question->source.stream;
    reading->cancellable = g_object_ref(question->stop);
    reading->io_priority = question->source.io_priority;
    reading->room = orvex_rooms_take(question->rooms);
    reading->size = question->source.piece_size;
    question->reading = reading;
    reading->source = orvex_prepare_post(reading->io_priority, read_stream,
                                         orvex_counted_ref(reading), orvex_counted_unref);
    g_source_attach(reading->source, question->source.context);
}

void orvex_question_read_ahead(OrvexQuestion* question) {
    const gsize room = READ_AHEAD - MIN(READ_AHEAD, question->read_bytes);
    const gboolean is_full = question->pieces.length >= PIECES_AHEAD ||
                             (question->pieces.length > 0 && room < question->source.piece_size);
    if (question->source.stream != NULL && question->reading == NULL && !question->has_ended &&
        !is_full) {
        begin_to_read(question);
    }
}

// -- pieces --------------------------------------------------------------------------------------

/// The next piece of a question that is there as a whole.
static GBytes* cut_piece(OrvexQuestion* question) {
    const gsize whole = g_bytes_get_size(question->source.bytes);
    const gsize size = MIN(whole - question->offset, question->source.piece_size);
    GBytes* piece = g_bytes_new_from_bytes(question->source.bytes, question->offset, size);
    question->offset += size;
    question->has_ended = question->offset == whole;
    return piece;
}

static GBytes* take_read_piece(OrvexQuestion* question) {
    GBytes* piece = g_queue_pop_head(&question->pieces);
    question->read_bytes -= piece != NULL ? g_bytes_get_size(piece) : 0;
    return piece == NULL && question->has_ended ? g_bytes_new_static(NULL, 0) : piece;
}

GBytes* orvex_question_take_piece(OrvexQuestion* question, gboolean* is_last) {
    GBytes* piece =
        question->source.bytes != NULL ? cut_piece(question) : take_read_piece(question);
    if (piece != NULL) {
        orvex_question_read_ahead(question);
    }
    *is_last = question->has_ended && question->pieces.length == 0;
    return piece;
}
