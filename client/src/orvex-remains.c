#include "orvex-remains.h"

#include "orvex-calls.h"
#include "orvex-names.h"
#include "orvex-sync.h"

#include <unistd.h>

enum { LAST_CALL_MS = 1000 }; ///< the daemon answers at once unless it hangs

/// What the daemon would keep if the process ended now.
typedef struct {
    gconstpointer transfer; ///< whose it is: numbers begin again with the next daemon
    guint connection;
    guint request;
    gboolean uploading;
} Note;

/// Guarded by registry_lock.
struct OrvexRemains {
    GDBusConnection* bus; ///< while it is in the registry; not owned
    GArray* notes;
    guint connecting; ///< transfers that do not know their number yet
};

static pthread_mutex_t registry_lock = PTHREAD_MUTEX_INITIALIZER;
static GPtrArray* registry = NULL; ///< of OrvexRemains with a bus; guarded by registry_lock
static pid_t registry_process = 0;
static pthread_cond_t registry_connected; ///< no transfer waits for its number any more
static gboolean process_ends = FALSE;     ///< guarded by registry_lock

// -- what is noted -------------------------------------------------------------------------------

OrvexRemains* orvex_remains_new(void) {
    OrvexRemains* remains = g_new0(OrvexRemains, 1);
    remains->notes = g_array_new(FALSE, FALSE, sizeof(Note));
    return remains;
}

void orvex_remains_free(OrvexRemains* remains) {
    g_array_unref(remains->notes);
    g_free(remains);
}

void orvex_remains_enter(OrvexRemains* remains, GDBusConnection* bus) {
    pthread_mutex_lock(&registry_lock);
    if (registry == NULL) {
        pthread_condattr_t attributes;
        pthread_condattr_init(&attributes);
        pthread_condattr_setclock(&attributes, CLOCK_MONOTONIC);
        pthread_cond_init(&registry_connected, &attributes);
        pthread_condattr_destroy(&attributes);
        registry = g_ptr_array_new();
        registry_process = getpid();
    }
    remains->bus = bus;
    g_ptr_array_add(registry, remains);
    pthread_mutex_unlock(&registry_lock);
}

void orvex_remains_leave(OrvexRemains* remains) {
    pthread_mutex_lock(&registry_lock);
    g_ptr_array_remove_fast(registry, remains);
    remains->bus = NULL;
    pthread_mutex_unlock(&registry_lock);
}

static guint find_note(const OrvexRemains* remains, gconstpointer transfer) {
    guint index = 0;
    while (index < remains->notes->len &&
           g_array_index(remains->notes, Note, index).transfer != transfer) {
        ++index;
    }
    return index;
}

void orvex_remains_note_open(OrvexRemains* remains, gconstpointer transfer, guint connection,
                             guint request, gboolean uploading) {
    const Note note = {transfer, connection, request, uploading};
    pthread_mutex_lock(&registry_lock);
    const guint index = find_note(remains, transfer);
    if (index < remains->notes->len) {
        g_array_index(remains->notes, Note, index) = note;
    } else {
        g_array_append_val(remains->notes, note);
    }
    pthread_mutex_unlock(&registry_lock);
}

void orvex_remains_note_closed(OrvexRemains* remains, gconstpointer transfer) {
    pthread_mutex_lock(&registry_lock);
    const guint index = find_note(remains, transfer);
    if (index < remains->notes->len) {
        g_array_remove_index_fast(remains->notes, index);
    }
    pthread_mutex_unlock(&registry_lock);
}

gboolean orvex_remains_begin_connect(OrvexRemains* remains) {
    pthread_mutex_lock(&registry_lock);
    const gboolean may = !process_ends;
    remains->connecting += may ? 1 : 0;
    pthread_mutex_unlock(&registry_lock);
    return may;
}

void orvex_remains_end_connect(OrvexRemains* remains) {
    pthread_mutex_lock(&registry_lock);
    --remains->connecting;
    pthread_cond_broadcast(&registry_connected);
    pthread_mutex_unlock(&registry_lock);
}

// -- the end of the process ----------------------------------------------------------------------

static gboolean somebody_connects(void) {
    gboolean connects = FALSE;
    for (guint index = 0; index < registry->len; ++index) {
        const OrvexRemains* remains = g_ptr_array_index(registry, index);
        connects = connects || remains->connecting > 0;
    }
    return connects;
}

/// The numbers of connections that are being made have to be known before they can be closed. With
/// the registry's lock, which the worker gets meanwhile.
static void await_numbers(gint64 deadline) {
    const struct timespec until = {(time_t)(deadline / G_USEC_PER_SEC),
                                   (long)(deadline % G_USEC_PER_SEC * 1000)};
    int waited = 0;
    while (waited == 0 && somebody_connects()) {
        waited = pthread_cond_timedwait(&registry_connected, &registry_lock, &until);
    }
}

static void take_back(gpointer each_remains, gpointer data) {
    const OrvexRemains* remains = each_remains;
    (void)data;
    for (guint index = 0; index < remains->notes->len; ++index) {
        const Note* each = &g_array_index(remains->notes, Note, index);
        if (each->uploading) {
            orvex_send_end_of_question(remains->bus, ORVEX_BUS_NAME, each->connection,
                                       each->request);
        }
        orvex_send(remains->bus, ORVEX_BUS_NAME, "disconnect",
                   g_variant_new("(u)", each->connection));
    }
}

/// The bus has passed everything on when it answers.
static void await_bus(gpointer each_remains, gpointer deadline) {
    const OrvexRemains* remains = each_remains;
    if (remains->notes->len == 0) {
        return;
    }
    const gint64 left = (*(const gint64*)deadline - g_get_monotonic_time()) / 1000;
    g_autoptr(GVariant) reply = g_dbus_connection_call_sync(
        remains->bus, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus.Peer",
        "Ping", NULL, NULL, G_DBUS_CALL_FLAGS_NONE, (int)MAX(left, 1), NULL, NULL);
}

/// The process ends by exit(), with requests under way.
__attribute__((destructor)) static void take_back_all(void) {
    if (registry_process != getpid()) { // a fork has no requests of its own
        return;
    }
    gint64 deadline = g_get_monotonic_time() + LAST_CALL_MS * 1000;
    pthread_mutex_lock(&registry_lock);
    process_ends = TRUE;
    await_numbers(deadline);
    deadline = g_get_monotonic_time() + LAST_CALL_MS * 1000;
    g_ptr_array_foreach(registry, take_back, NULL);
    g_ptr_array_foreach(registry, await_bus, &deadline);
    pthread_mutex_unlock(&registry_lock);
}
