#include "orvex-answer.h"

#include "orvex-counted.h"
#include "orvex-failure.h"
#include "orvex-sync.h"
#include "orvex-worker.h"

#include <string.h>

enum { CHUNKS_HELD = 2 }; ///< for a reader

/// A piece of the answer. Empty ones are kept only if a part ends with them.
typedef struct {
    GBytes* bytes;
    gsize taken;
    gboolean ends_part;
} Chunk;

/// A task that waits for the reader's side, and where its bytes go.
typedef struct {
    GTask* task;
    GSource* cancelled;
    void* buffer; ///< NULL: it waits for the next part
    gsize count;
    guint part;
} Parked;

struct OrvexAnswer {
    gpointer transfer;
    void (*has_room)(gpointer transfer);
    guint64 limit;
    GByteArray* whole; ///< if it is collected; the worker's own

    // Guarded by the lock. Another thread waits for a change of it.
    pthread_mutex_t lock;
    pthread_cond_t changed;
    GQueue chunks;
    guint part;        ///< number of the part that the first chunk belongs to
    guint left;        ///< the reader wants no part before this one
    gboolean is_cut;   ///< bytes of this part were left out on the way to the next one
    gboolean complete; ///< behind the last chunk there is nothing more
    GError* error;     ///< behind the last chunk there is this
    gboolean paused;   ///< the reader has as much as it may have
    GTask* opened;     ///< waits for the first chunk, or for the whole answer
    Parked* reader;
    Parked* next;
};

// -- life ----------------------------------------------------------------------------------------

static void chunk_free(gpointer data) {
    Chunk* chunk = data;
    g_bytes_unref(chunk->bytes);
    g_free(chunk);
}

static Chunk* chunk_new(GBytes* bytes, gboolean ends_part) {
    Chunk* chunk = g_new0(Chunk, 1);
    chunk->bytes = bytes;
    chunk->ends_part = ends_part;
    return chunk;
}

OrvexAnswer* orvex_answer_new(gpointer transfer, void (*has_room)(gpointer), gboolean collect,
                              guint64 limit) {
    OrvexAnswer* answer = g_new0(OrvexAnswer, 1);
    answer->transfer = transfer;
    answer->has_room = has_room;
    answer->limit = limit;
    answer->whole = collect ? g_byte_array_new() : NULL;
    pthread_mutex_init(&answer->lock, NULL);
    pthread_cond_init(&answer->changed, NULL);
    g_queue_init(&answer->chunks);
    return answer;
}

void orvex_answer_free(OrvexAnswer* answer) {
    g_queue_clear_full(&answer->chunks, chunk_free);
    g_clear_pointer(&answer->whole, g_byte_array_unref);
    g_clear_error(&answer->error);
    pthread_cond_destroy(&answer->changed);
    pthread_mutex_destroy(&answer->lock);
    g_free(answer);
}

void orvex_answer_begin(OrvexAnswer* answer, GTask* task) {
    answer->opened = g_object_ref(task);
}

GCancellable* orvex_answer_get_cancellable(OrvexAnswer* answer) {
    return g_task_get_cancellable(answer->opened);
}

// -- what there is: with the lock ----------------------------------------------------------------

/// Takes bytes of this part.
/// @return FALSE when the reader has to wait; else *taken is what a read returns, and -1 means
/// read_error()
static gboolean take_bytes(OrvexAnswer* answer, guint part, void* buffer, gsize size,
                           gssize* taken) {
    *taken = 0;
    if (part != answer->part) {
        return TRUE; // the reader has left it
    }
    if (answer->is_cut) {
        *taken = -1;
        return TRUE;
    }
    Chunk* chunk = g_queue_peek_head(&answer->chunks);
    if (chunk == NULL) {
        *taken = answer->error != NULL ? -1 : 0;
        return answer->error != NULL;
    }
    gsize length = 0;
    const guint8* bytes = g_bytes_get_data(chunk->bytes, &length);
    const gsize amount = MIN(size, length - chunk->taken);
    if (amount > 0) {
        memcpy(buffer, bytes + chunk->taken, amount);
    }
    chunk->taken += amount;
    *taken = (gssize)amount;
    if (chunk->taken == length && !chunk->ends_part) {
        chunk_free(g_queue_pop_head(&answer->chunks));
    }
    return TRUE;
}

static GError* read_error(const OrvexAnswer* answer) {
    return answer->is_cut ? g_error_new_literal(G_IO_ERROR, G_IO_ERROR_CLOSED,
                                                "The rest of this part was left out")
                          : g_error_copy(answer->error);
}

/// Goes behind the end of this part.
/// @return FALSE when the reader has to wait; else *part is the number of the next one, or -1
static gboolean take_part(OrvexAnswer* answer, gssize* part) {
    while (answer->chunks.length > 0) {
        Chunk* chunk = g_queue_pop_head(&answer->chunks);
        const gboolean ends = chunk->ends_part;
        chunk_free(chunk);
        answer->is_cut = !ends;
        if (ends) {
            ++answer->part;
            *part = answer->complete && answer->chunks.length == 0 ? -1 : (gssize)answer->part;
            return TRUE;
        }
    }
    *part = -1;
    return answer->complete || answer->error != NULL;
}

/// @return whether has_room() has to be called
static gboolean end_pause(OrvexAnswer* answer) {
    const gboolean ends = answer->paused && answer->chunks.length < CHUNKS_HELD;
    if (ends) {
        answer->paused = FALSE;
    }
    return ends;
}

/// The task of whoever waits for the first chunk, if it is to be answered now.
static GTask* take_opened(OrvexAnswer* answer) {
    const gboolean begun = answer->whole == NULL && answer->chunks.length > 0;
    return begun || answer->complete || answer->error != NULL ? g_steal_pointer(&answer->opened)
                                                              : NULL;
}

// -- the worker's side ---------------------------------------------------------------------------

/// An array of bytes ends the program when it would become longer than this.
gboolean orvex_answer_is_too_long(const OrvexAnswer* answer, gsize more) {
    const guint64 most = MIN(G_MAXSIZE / 2, G_MAXUINT);
    const guint64 limit = answer->limit != 0 ? MIN(answer->limit, most) : most;
    return answer->whole != NULL && (guint64)answer->whole->len + more > limit;
}

void orvex_answer_keep(OrvexAnswer* answer, GBytes* bytes, gboolean ends_part) {
    const gsize size = g_bytes_get_size(bytes);
    if (answer->whole != NULL) {
        g_byte_array_append(answer->whole, g_bytes_get_data(bytes, NULL), (guint)size);
        g_bytes_unref(bytes);
        return;
    }
    if (size == 0 && !ends_part) { // means nothing by itself
        g_bytes_unref(bytes);
        return;
    }
    Chunk* chunk = chunk_new(bytes, ends_part);
    pthread_mutex_lock(&answer->lock);
    g_queue_push_tail(&answer->chunks, chunk);
    pthread_mutex_unlock(&answer->lock);
}

/// The last chunk ends the last part. With the lock.
static void complete(OrvexAnswer* answer) {
    Chunk* last = g_queue_peek_tail(&answer->chunks);
    if (last == NULL || last->ends_part) {
        last = chunk_new(g_bytes_new_static(NULL, 0), FALSE);
        g_queue_push_tail(&answer->chunks, last);
    }
    last->ends_part = TRUE;
    answer->complete = TRUE;
}

void orvex_answer_end(OrvexAnswer* answer, GError* error) {
    if (error != NULL) {
        g_clear_pointer(&answer->whole, g_byte_array_unref);
    }
    pthread_mutex_lock(&answer->lock);
    if (error == NULL) {
        complete(answer);
    } else if (g_error_matches(error, G_IO_ERROR, G_IO_ERROR_CANCELLED)) {
        g_queue_clear_full(&answer->chunks, chunk_free); // nobody wants it
    }
    answer->error = error;
    pthread_mutex_unlock(&answer->lock);
    orvex_answer_wake(answer);
}

gboolean orvex_answer_is_full(OrvexAnswer* answer) {
    pthread_mutex_lock(&answer->lock);
    answer->paused = answer->chunks.length >= CHUNKS_HELD;
    const gboolean paused = answer->paused;
    pthread_mutex_unlock(&answer->lock);
    return paused;
}

gboolean orvex_answer_is_paused(OrvexAnswer* answer) {
    pthread_mutex_lock(&answer->lock);
    const gboolean paused = answer->paused;
    pthread_mutex_unlock(&answer->lock);
    return paused;
}

/// Takes the error.
static void parked_return(Parked* parked, gssize value, GError* error) {
    orvex_source_clear(&parked->cancelled);
    if (error != NULL) {
        orvex_task_return_error(parked->task, error);
    } else {
        orvex_task_return_int(parked->task, value);
    }
    g_free(parked);
}

/// Takes task and error.
static void opened_return(OrvexAnswer* answer, GTask* task, GError* error) {
    if (error != NULL) {
        orvex_task_return_error(task, error);
    } else if (answer->whole != NULL) {
        orvex_task_return_bytes(task, g_byte_array_free_to_bytes(g_steal_pointer(&answer->whole)));
    } else {
        orvex_task_return_boolean(task, TRUE);
    }
}

void orvex_answer_wake(OrvexAnswer* answer) {
    Parked* reader = NULL;
    Parked* next = NULL;
    gssize taken = 0;
    gssize part = 0;
    pthread_mutex_lock(&answer->lock);
    const gboolean at_end = answer->chunks.length == 0;
    GTask* opened = answer->opened != NULL ? take_opened(answer) : NULL;
    if (answer->reader != NULL && take_bytes(answer, answer->reader->part, answer->reader->buffer,
                                             answer->reader->count, &taken)) {
        reader = g_steal_pointer(&answer->reader);
    }
    if (answer->next != NULL && take_part(answer, &part)) {
        next = g_steal_pointer(&answer->next);
    }
    g_autoptr(GError) error = answer->error != NULL ? g_error_copy(answer->error) : NULL;
    GError* unread = reader != NULL && taken < 0 ? read_error(answer) : NULL;
    const gboolean has_room = end_pause(answer);
    pthread_cond_broadcast(&answer->changed);
    pthread_mutex_unlock(&answer->lock);
    if (has_room) {
        answer->has_room(answer->transfer);
    }
    if (opened != NULL) {
        opened_return(answer, opened, at_end && error != NULL ? g_error_copy(error) : NULL);
    }
    if (reader != NULL) {
        parked_return(reader, taken, unread);
    }
    if (next != NULL) {
        parked_return(next, part, part < 0 && error != NULL ? g_error_copy(error) : NULL);
    }
}

// -- tasks that wait -----------------------------------------------------------------------------

/// On its way to the worker, or between it and a cancellable.
typedef struct {
    OrvexAnswer* answer; ///< whose transfer it keeps
    Parked* parked;
} Park;

static Park* park_new(OrvexAnswer* answer, Parked* parked) {
    Park* park = g_new(Park, 1);
    *park = (Park){answer, parked};
    orvex_counted_ref(answer->transfer);
    return park;
}

static void park_free(gpointer data) {
    Park* park = data;
    orvex_counted_unref(park->answer->transfer);
    g_free(park);
}

/// The operation that waits was cancelled; the transfer goes on. The worker.
static gboolean parked_cancelled(GCancellable* cancellable, gpointer data) {
    const Park* park = data;
    OrvexAnswer* answer = park->answer;
    pthread_mutex_lock(&answer->lock);
    if (answer->reader == park->parked) {
        answer->reader = NULL;
    } else if (answer->next == park->parked) {
        answer->next = NULL;
        answer->left = answer->part;
    }
    pthread_mutex_unlock(&answer->lock);
    (void)cancellable;
    // The source frees the park behind this call.
    parked_return(park->parked, -1, orvex_failure_cancelled());
    return G_SOURCE_REMOVE;
}

static void watch_cancellable(OrvexAnswer* answer, Parked* parked) {
    GCancellable* cancellable = g_task_get_cancellable(parked->task);
    if (cancellable != NULL) {
        parked->cancelled = g_cancellable_source_new(cancellable);
        g_source_set_callback(parked->cancelled, G_SOURCE_FUNC(parked_cancelled),
                              park_new(answer, parked), park_free);
        g_source_attach(parked->cancelled, orvex_worker_context());
    }
}

static void park(gpointer data) {
    const Park* park = data;
    OrvexAnswer* answer = park->answer;
    watch_cancellable(answer, park->parked);
    pthread_mutex_lock(&answer->lock);
    Parked** place = park->parked->buffer != NULL ? &answer->reader : &answer->next;
    const gboolean is_free = *place == NULL;
    if (is_free) {
        *place = park->parked;
    }
    pthread_mutex_unlock(&answer->lock);
    if (!is_free) {
        parked_return(
            park->parked, -1,
            g_error_new_literal(G_IO_ERROR, G_IO_ERROR_PENDING, "Another call waits for it"));
        return;
    }
    orvex_answer_wake(answer);
}

/// Lets a task wait on the worker.
static void park_later(OrvexAnswer* answer, Parked* parked) {
    orvex_worker_post(park, park_new(answer, parked), park_free);
}

// -- the reader's side ---------------------------------------------------------------------------

static void wake_waiting(GCancellable* cancellable, gpointer data) {
    OrvexAnswer* answer = data;
    (void)cancellable;
    pthread_mutex_lock(&answer->lock);
    pthread_cond_broadcast(&answer->changed);
    pthread_mutex_unlock(&answer->lock);
}

gssize orvex_answer_read(OrvexAnswer* answer, guint part, void* buffer, gsize size,
                         GCancellable* cancellable, GError** error) {
    gssize taken = 0;
    gulong watch = 0;
    if (g_cancellable_set_error_if_cancelled(cancellable, error)) {
        return -1;
    }
    if (cancellable != NULL) {
        watch = g_cancellable_connect(cancellable, G_CALLBACK(wake_waiting), answer, NULL);
    }
    pthread_mutex_lock(&answer->lock);
    gboolean done = take_bytes(answer, part, buffer, size, &taken);
    while (!done && !g_cancellable_is_cancelled(cancellable)) {
        pthread_cond_wait(&answer->changed, &answer->lock);
        done = take_bytes(answer, part, buffer, size, &taken);
    }
    if (done && taken < 0) {
        g_propagate_error(error, read_error(answer));
    }
    const gboolean has_room = end_pause(answer);
    pthread_mutex_unlock(&answer->lock);
    g_cancellable_disconnect(cancellable, watch);
    if (has_room) {
        answer->has_room(answer->transfer);
    }
    if (!done) {
        g_propagate_error(error, orvex_failure_cancelled());
    }
    return done ? taken : -1;
}

void orvex_answer_read_async(OrvexAnswer* answer, guint part, void* buffer, gsize size,
                             GTask* task) {
    gssize taken = 0;
    if (g_task_return_error_if_cancelled(task)) {
        return;
    }
    pthread_mutex_lock(&answer->lock);
    const gboolean done = take_bytes(answer, part, buffer, size, &taken);
    g_autoptr(GError) error = done && taken < 0 ? read_error(answer) : NULL;
    const gboolean has_room = end_pause(answer);
    pthread_mutex_unlock(&answer->lock);
    if (has_room) {
        answer->has_room(answer->transfer);
    }
    if (error != NULL) {
        g_task_return_error(task, g_steal_pointer(&error));
    } else if (done) {
        g_task_return_int(task, taken);
    } else {
        Parked* parked = g_new(Parked, 1);
        *parked = (Parked){g_object_ref(task), NULL, buffer, size, part};
        park_later(answer, parked);
    }
}

void orvex_answer_next_part(OrvexAnswer* answer, GTask* task) {
    if (g_task_return_error_if_cancelled(task)) {
        return;
    }
    Parked* parked = g_new0(Parked, 1);
    parked->task = g_object_ref(task);
    pthread_mutex_lock(&answer->lock);
    answer->left = answer->part + 1; // so the stream of this part may be dropped right away
    pthread_mutex_unlock(&answer->lock);
    park_later(answer, parked);
}

gboolean orvex_answer_is_at_end(OrvexAnswer* answer, guint part) {
    pthread_mutex_lock(&answer->lock);
    const Chunk* chunk = g_queue_peek_head(&answer->chunks);
    const gboolean end =
        part != answer->part || part < answer->left || answer->error != NULL || answer->complete ||
        (chunk != NULL && chunk->ends_part && chunk->taken == g_bytes_get_size(chunk->bytes));
    pthread_mutex_unlock(&answer->lock);
    return end;
}
