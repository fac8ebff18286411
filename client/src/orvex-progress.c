#include "orvex-progress.h"

#include "orvex-counted.h"
#include "orvex-error.h"
#include "orvex-sync.h"
#include "orvex-worker.h"

enum { PROGRESS_MS = 20 }; ///< between two events: each wakes a thread

/// Where the listener is.
typedef struct {
    OrvexCounted counted;
    GWeakRef object;
    void (*state)(GObject* object, guint64 run, OrvexRequestState state);
    void (*moved)(GObject* object, guint64 run);
} Address;

struct OrvexProgress {
    Address* address;
    GMainContext* context; ///< NULL when the end was told
    guint64 run;
    GSource* telling; ///< moves, when it fires
    gboolean untold;  ///< bytes have moved since it was told
    gboolean is_stopped;

    pthread_mutex_t lock;
    OrvexFacts facts; ///< guarded by the lock
    gboolean posted;  ///< an event about moves is on its way; guarded by the lock
};

// -- life ----------------------------------------------------------------------------------------

static void address_free(gpointer data) {
    Address* address = data;
    g_weak_ref_clear(&address->object);
    g_free(address);
}

static Address* address_new(const OrvexListener* listener) {
    Address* address = g_new(Address, 1);
    orvex_counted_init(address, address_free);
    g_weak_ref_init(&address->object, listener->object);
    address->state = listener->state;
    address->moved = listener->moved;
    return address;
}

OrvexProgress* orvex_progress_new(const OrvexListener* listener) {
    static atomic_uint_fast64_t runs = 0;
    OrvexProgress* progress = g_new0(OrvexProgress, 1);
    progress->address = address_new(listener);
    progress->context = listener->context;
    progress->run = atomic_fetch_add(&runs, 1) + 1;
    pthread_mutex_init(&progress->lock, NULL);
    progress->facts.state = ORVEX_REQUEST_STATE_CONNECTING;
    return progress;
}

void orvex_progress_free(OrvexProgress* progress) {
    orvex_counted_unref(progress->address);
    g_clear_pointer(&progress->context, g_main_context_unref);
    g_free(progress->facts.error_detail);
    pthread_mutex_destroy(&progress->lock);
    g_free(progress);
}

// -- what the listener is told -------------------------------------------------------------------

/// On its way into the listener's context. It keeps neither him nor the transfer alive: that
/// context may never run again.
typedef struct {
    Address* address;
    guint64 run; ///< which of his transfers it is about
    OrvexRequestState state;
    gboolean is_move;
} Event;

static void event_tell(gpointer data) {
    Event* event = data;
    Address* address = event->address;
    g_autoptr(GObject) object = g_weak_ref_get(&address->object);
    if (object == NULL) {
        return;
    }
    if (event->is_move) {
        address->moved(object, event->run);
    } else {
        address->state(object, event->run, event->state);
    }
}

static void event_free(gpointer data) {
    Event* event = data;
    orvex_counted_unref(event->address);
    g_free(event);
}

static void post_event(OrvexProgress* progress, gboolean is_move, OrvexRequestState state) {
    if (progress->context == NULL) { // the end was told
        return;
    }
    Event* event = g_new0(Event, 1);
    event->address = orvex_counted_ref(progress->address);
    event->run = progress->run;
    event->state = state;
    event->is_move = is_move;
    orvex_post(progress->context, G_PRIORITY_DEFAULT, event_tell, event, event_free);
}

static void tell_moves(OrvexProgress* progress) {
    pthread_mutex_lock(&progress->lock);
    const gboolean post = !progress->posted;
    progress->posted = TRUE;
    pthread_mutex_unlock(&progress->lock);
    progress->untold = FALSE;
    if (post) { // else the one that is on its way brings the new numbers
        post_event(progress, TRUE, ORVEX_REQUEST_STATE_IDLE);
    }
}

static gboolean tell_moves_again(gpointer data) {
    OrvexProgress* progress = data;
    orvex_source_clear(&progress->telling);
    if (progress->untold) {
        tell_moves(progress);
        progress->telling = orvex_worker_timer(PROGRESS_MS, tell_moves_again, progress);
    }
    return G_SOURCE_REMOVE;
}

// -- what the worker writes ----------------------------------------------------------------------

void orvex_progress_begin(OrvexProgress* progress) {
    post_event(progress, FALSE, ORVEX_REQUEST_STATE_CONNECTING);
}

void orvex_progress_set_key(OrvexProgress* progress, guint connection, guint request) {
    pthread_mutex_lock(&progress->lock);
    progress->facts.connection = connection;
    progress->facts.request = request;
    pthread_mutex_unlock(&progress->lock);
}

void orvex_progress_set_state(OrvexProgress* progress, OrvexRequestState state) {
    if (progress->untold) {
        tell_moves(progress);
    }
    pthread_mutex_lock(&progress->lock);
    const gboolean changed = progress->facts.state != state;
    progress->facts.state = state;
    pthread_mutex_unlock(&progress->lock);
    if (changed) {
        post_event(progress, FALSE, state);
    }
}

void orvex_progress_count(OrvexProgress* progress, gsize sent, gsize received) {
    pthread_mutex_lock(&progress->lock);
    progress->facts.sent += sent;
    progress->facts.received += received;
    pthread_mutex_unlock(&progress->lock);
    progress->untold = TRUE;
    if (progress->telling == NULL) {
        tell_moves(progress);
    }
    if (progress->telling == NULL && !progress->is_stopped) {
        progress->telling = orvex_worker_timer(PROGRESS_MS, tell_moves_again, progress);
    }
}

void orvex_progress_stop(OrvexProgress* progress) {
    progress->is_stopped = TRUE;
    orvex_source_clear(&progress->telling);
}

void orvex_progress_end(OrvexProgress* progress, const GError* error) {
    pthread_mutex_lock(&progress->lock);
    progress->facts.is_over = TRUE;
    if (error != NULL) {
        progress->facts.error_code = orvex_error_get_code(error);
        progress->facts.error_detail = g_strdup(orvex_error_get_detail(error));
    }
    pthread_mutex_unlock(&progress->lock);
    g_clear_pointer(&progress->context, g_main_context_unref); // it may keep what waits there
}

// -- what others read ----------------------------------------------------------------------------

guint64 orvex_progress_get_run(const OrvexProgress* progress) {
    return progress->run;
}

void orvex_progress_get_facts(OrvexProgress* progress, OrvexFacts* facts) {
    pthread_mutex_lock(&progress->lock);
    *facts = progress->facts;
    facts->error_detail = g_strdup(progress->facts.error_detail);
    pthread_mutex_unlock(&progress->lock);
}

void orvex_progress_take_moves(OrvexProgress* progress, guint64* sent, guint64* received) {
    pthread_mutex_lock(&progress->lock);
    progress->posted = FALSE;
    *sent = progress->facts.sent;
    *received = progress->facts.received;
    pthread_mutex_unlock(&progress->lock);
}
