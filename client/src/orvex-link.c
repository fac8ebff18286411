#include "orvex-link.h"

#include "orvex-audience.h"
#include "orvex-calls.h"
#include "orvex-failure.h"
#include "orvex-names.h"
#include "orvex-remains.h"
#include "orvex-sync.h"
#include "orvex-transfer.h"
#include "orvex-waiters.h"
#include "orvex-worker.h"

#include <stdatomic.h>
#include <stdlib.h>

enum { FIRST_CALL_MS = 5000 };

/// The daemon never answers the held call of a request that failed or was given up. The bus keeps
/// the place for the answer until the caller or the daemon leaves, and refuses calls when a
/// connection has too many such places: 128 unless its configuration says otherwise, and 16 is in
/// use. So each connection serves a few transfers, and is left when it has lost too many answers.
enum { MOST_CALLS = 16, CALLS_OF_A_TRANSFER = 2 };

/// No user has this number.
#define NOBODY G_MAXUINT32

typedef struct Watch Watch;

struct OrvexLink {
    atomic_int refs;
    GDBusConnection* bus;
    gboolean owns_bus;
    char* address; ///< of a bus of its own
    guint32 user;  ///< as the bus knows this process
    guint signals;
    guint cancels;
    guint owners;
    Watch* watch;
    gulong closed;
    GList* openers;        ///< of GTask, while it is opened
    GHashTable* transfers; ///< by the number of their connection; not owned
    OrvexWaiters* waiters;

    guint seats;     ///< transfers that use it
    guint lost;      ///< calls that were given up and are never answered
    GList* boarding; ///< of OrvexTransfer: they wait until it is open
    GList* spares;   ///< of OrvexLink, for transfers for which this one has no room

    OrvexRemains* remains;
    GMainContext* context;
    OrvexAudience* audience; ///< NULL for a spare one

    pthread_mutex_t lock;
    gboolean is_open;   ///< written by the worker under the lock
    char* owner;        ///< written by the worker under the lock
    OrvexStatus status; ///< likewise
};

// -- what the end of the process leaves ----------------------------------------------------------

void orvex_link_note_open(OrvexLink* link, const OrvexTransfer* transfer, guint connection,
                          guint request, gboolean uploading) {
    orvex_remains_note_open(link->remains, transfer, connection, request, uploading);
}

void orvex_link_note_closed(OrvexLink* link, const OrvexTransfer* transfer) {
    orvex_remains_note_closed(link->remains, transfer);
}

gboolean orvex_link_begin_connect(OrvexLink* link) {
    return orvex_remains_begin_connect(link->remains);
}

void orvex_link_end_connect(OrvexLink* link) {
    orvex_remains_end_connect(link->remains);
}

void orvex_link_send(OrvexLink* link, const char* owner, const char* member, GVariant* arguments) {
    orvex_send(link->bus, owner, member, arguments);
}

// -- what those need who wait for a network ------------------------------------------------------

static gboolean has_bus(gpointer data) {
    const OrvexLink* link = data;
    return orvex_is_connected(link->bus);
}

static void ask_for_waiters(gpointer data);

static const OrvexWaitersLink waiters_link = {.ask = ask_for_waiters, .is_connected = has_bus};

// -- life ----------------------------------------------------------------------------------------

static OrvexLink* link_new(GMainContext* context) {
    OrvexLink* link = g_new0(OrvexLink, 1);
    atomic_init(&link->refs, 1);
    link->user = NOBODY;
    link->transfers = g_hash_table_new(NULL, NULL);
    link->remains = orvex_remains_new();
    link->waiters = orvex_waiters_new(&waiters_link, link);
    link->context = g_main_context_ref(context);
    pthread_mutex_init(&link->lock, NULL);
    return link;
}

OrvexLink* orvex_link_new(GMainContext* context, void (*changed)(gpointer, const char*),
                          gpointer client) {
    OrvexLink* link = link_new(context);
    link->audience = orvex_audience_new(context, changed, client);
    return link;
}

OrvexLink* orvex_link_ref(OrvexLink* link) {
    atomic_fetch_add(&link->refs, 1);
    return link;
}

/// For what the bus tells: the link may be on its way out.
/// @return whether there is a reference now
static gboolean link_ref_if_alive(OrvexLink* link) {
    int refs = atomic_load(&link->refs);
    while (refs > 0 && !atomic_compare_exchange_weak(&link->refs, &refs, refs + 1)) {
    }
    return refs > 0;
}

/// From where the connection's "closed" is told, which may be any thread, to the worker.
struct Watch {
    atomic_int refs;
    pthread_mutex_t lock;
    OrvexLink* link; ///< NULL once the link has left the bus; guarded by the lock
};

static Watch* watch_new(OrvexLink* link) {
    Watch* watch = g_new0(Watch, 1);
    atomic_init(&watch->refs, 2); // the link's, and the signal handler's
    pthread_mutex_init(&watch->lock, NULL);
    watch->link = link;
    return watch;
}

static void watch_unref(gpointer data, GClosure* closure) {
    Watch* watch = data;
    (void)closure;
    if (atomic_fetch_sub(&watch->refs, 1) == 1) {
        pthread_mutex_destroy(&watch->lock);
        g_free(watch);
    }
}

static void watch_end(Watch* watch) {
    pthread_mutex_lock(&watch->lock);
    watch->link = NULL;
    pthread_mutex_unlock(&watch->lock);
    watch_unref(watch, NULL);
}

static void close_bus(GObject* bus, GAsyncResult* result, gpointer data) {
    (void)data;
    (void)g_dbus_connection_flush_finish(G_DBUS_CONNECTION(bus), result, NULL);
    g_dbus_connection_close(G_DBUS_CONNECTION(bus), NULL, NULL, NULL);
}

static void leave_bus(OrvexLink* link) {
    if (link->bus == NULL) {
        return;
    }
    orvex_remains_leave(link->remains);
    g_dbus_connection_signal_unsubscribe(link->bus, link->signals);
    g_dbus_connection_signal_unsubscribe(link->bus, link->cancels);
    g_dbus_connection_signal_unsubscribe(link->bus, link->owners);
    watch_end(g_steal_pointer(&link->watch));
    g_signal_handler_disconnect(link->bus, link->closed);
    if (link->owns_bus && !g_dbus_connection_is_closed(link->bus)) {
        // Closing would overtake what is still to be written.
        g_dbus_connection_flush(link->bus, NULL, close_bus, NULL);
    }
    g_clear_object(&link->bus);
}

static void link_free(gpointer data) {
    OrvexLink* link = data;
    leave_bus(link);
    g_list_free_full(link->spares, (GDestroyNotify)orvex_link_unref);
    g_hash_table_unref(link->transfers);
    orvex_remains_free(link->remains);
    orvex_waiters_free(link->waiters);
    g_main_context_unref(link->context);
    g_clear_pointer(&link->audience, orvex_audience_free);
    g_free(link->address);
    pthread_mutex_destroy(&link->lock);
    g_free(link->owner);
    g_free(link);
}

void orvex_link_unref(OrvexLink* link) {
    if (atomic_fetch_sub(&link->refs, 1) == 1) {
        orvex_worker_post(link_free, link, NULL);
    }
}

// -- properties ----------------------------------------------------------------------------------

GDBusConnection* orvex_link_get_bus(OrvexLink* link) {
    pthread_mutex_lock(&link->lock);
    GDBusConnection* bus = link->is_open ? link->bus : NULL;
    pthread_mutex_unlock(&link->lock);
    return bus;
}

OrvexStatus orvex_link_get_status(OrvexLink* link) {
    pthread_mutex_lock(&link->lock);
    const OrvexStatus status = link->status;
    pthread_mutex_unlock(&link->lock);
    return status;
}

gboolean orvex_link_is_running(OrvexLink* link) {
    pthread_mutex_lock(&link->lock);
    const gboolean running = link->owner != NULL;
    pthread_mutex_unlock(&link->lock);
    return running;
}

const char* orvex_link_get_owner(OrvexLink* link) {
    return link->owner;
}

static void tell(OrvexLink* link, gboolean is_status) {
    if (!link->is_open || link->audience == NULL) {
        return; // nobody has seen another value
    }
    if (is_status) {
        orvex_audience_tell_status(link->audience);
    } else {
        orvex_audience_tell_running(link->audience);
    }
}

// -- status --------------------------------------------------------------------------------------

static void set_status(OrvexLink* link, guint status) {
    const gboolean changed = link->status != (OrvexStatus)status;
    pthread_mutex_lock(&link->lock);
    link->status = (OrvexStatus)status;
    pthread_mutex_unlock(&link->lock);
    if (changed) {
        tell(link, TRUE);
    }
    orvex_waiters_serve(link->waiters, link->status);
}

/// The outcome of a question for the status, which becomes the property too.
static gboolean read_status(OrvexLink* link, GAsyncResult* result, guint* status, GError** error) {
    GError* failure = NULL;
    g_autoptr(GVariant) reply = g_dbus_connection_call_finish(link->bus, result, &failure);
    g_autoptr(GVariant) value = NULL;
    if (reply == NULL) {
        g_propagate_error(error, orvex_failure_from_call(failure, FALSE));
        return FALSE;
    }
    g_variant_get(reply, "(v)", &value);
    if (!g_variant_is_of_type(value, G_VARIANT_TYPE_UINT32)) {
        g_propagate_error(error, orvex_failure_new(ORVEX_ERROR_PROTOCOL, 0, NULL));
        return FALSE;
    }
    *status = g_variant_get_uint32(value);
    set_status(link, *status);
    return TRUE;
}

static void ask_status(OrvexLink* link, const char* name, int timeout, GCancellable* cancellable,
                       GAsyncReadyCallback callback, gpointer data) {
    orvex_ask_for_status(link->bus, name, timeout, cancellable, callback, data);
}

static void status_answered(GObject* bus, GAsyncResult* result, gpointer data) {
    GTask* task = data;
    GError* error = NULL;
    guint status = 0;
    (void)bus;
    if (read_status(g_task_get_task_data(task), result, &status, &error)) {
        orvex_task_return_int(task, (gssize)status);
    } else {
        orvex_task_return_error(task, error);
    }
}

static void query_status(gpointer data) {
    GTask* task = data;
    OrvexLink* link = g_task_get_task_data(task);
    if (!has_bus(link)) {
        orvex_task_return_error(task, orvex_failure_new(ORVEX_ERROR_NO_BUS, 0, NULL));
        return;
    }
    ask_status(link, ORVEX_BUS_NAME, ORVEX_ANSWERED_AT_ONCE_MS, g_task_get_cancellable(task),
               status_answered, task);
}

void orvex_link_query_status(OrvexLink* link, GTask* task) {
    g_task_set_task_data(task, orvex_link_ref(link), (GDestroyNotify)orvex_link_unref);
    orvex_worker_post(query_status, g_object_ref(task), NULL);
}

static void waiters_answered(GObject* bus, GAsyncResult* result, gpointer data) {
    OrvexLink* link = data;
    g_autoptr(GError) error = NULL;
    guint status = 0;
    (void)bus;
    // A daemon that went away meanwhile is asked again when its name changes hands.
    if (!read_status(link, result, &status, &error)) {
        if (!has_bus(link)) {
            orvex_waiters_fail_without_bus(link->waiters);
        } else if (!g_error_matches(error, ORVEX_ERROR, ORVEX_ERROR_DAEMON_GONE)) {
            orvex_waiters_fail(link->waiters, error);
        }
    }
    orvex_link_unref(link);
}

/// Asks a daemon that may have to be started, for those who wait.
static void ask_for_waiters(gpointer link) {
    ask_status(link, ORVEX_BUS_NAME, ORVEX_ANSWERED_AT_ONCE_MS, NULL, waiters_answered,
               orvex_link_ref(link));
}

void orvex_link_wait_usable(OrvexLink* link, OrvexPolicy policy, GTask* task) {
    g_task_set_task_data(task, orvex_link_ref(link), (GDestroyNotify)orvex_link_unref);
    orvex_waiters_wait(link->waiters, policy, task);
}

// -- the daemon comes and goes -------------------------------------------------------------------

static void new_status(GObject* bus, GAsyncResult* result, gpointer data) {
    OrvexLink* link = data;
    guint status = 0;
    (void)bus;
    // A daemon that does not tell is as one without a network.
    (void)read_status(link, result, &status, NULL);
    orvex_link_unref(link);
}

/// Transfers may end while they are told, and leave the table.
static void for_each_transfer(OrvexLink* link, void (*action)(OrvexTransfer*)) {
    g_autoptr(GList) all = g_hash_table_get_values(link->transfers);
    g_list_foreach(all, (GFunc)(void (*)(void))orvex_transfer_ref, NULL);
    for (GList* each = all; each != NULL; each = each->next) {
        action(each->data);
        orvex_transfer_unref(each->data);
    }
}

static void set_owner(OrvexLink* link, const char* owner) {
    const gboolean was_running = link->owner != NULL;
    pthread_mutex_lock(&link->lock);
    g_free(link->owner);
    link->owner = g_strdup(owner);
    pthread_mutex_unlock(&link->lock);
    if (was_running != (owner != NULL)) {
        tell(link, FALSE);
    }
}

static void owner_changed(GDBusConnection* bus, const char* sender, const char* path,
                          const char* interface, const char* name, GVariant* arguments,
                          gpointer data) {
    OrvexLink* link = data;
    const char* before = NULL;
    const char* after = NULL;
    (void)bus, (void)sender, (void)path, (void)interface, (void)name;
    if (!g_variant_is_of_type(arguments, G_VARIANT_TYPE("(sss)")) || !link_ref_if_alive(link)) {
        return;
    }
    g_variant_get(arguments, "(&s&s&s)", NULL, &before, &after);
    if (*before != '\0') {
        link->lost = 0; // the bus has answered in its place
        set_owner(link, NULL);
        set_status(link, 0);
        for_each_transfer(link, orvex_transfer_daemon_gone);
    }
    if (*after != '\0') {
        set_owner(link, after);
        ask_status(link, after, ORVEX_ANSWERED_AT_ONCE_MS, NULL, new_status, orvex_link_ref(link));
    } else if (!orvex_waiters_is_empty(link->waiters)) {
        ask_for_waiters(link);
    }
    orvex_link_unref(link);
}

static void bus_lost(gpointer data) {
    OrvexLink* link = data;
    set_owner(link, NULL);
    set_status(link, 0);
    for_each_transfer(link, orvex_transfer_daemon_gone);
    orvex_waiters_fail_without_bus(link->waiters);
}

/// On the thread of the context in which the connection was made.
static void bus_closed(GDBusConnection* bus, gboolean vanished, GError* error, gpointer data) {
    Watch* watch = data;
    (void)bus, (void)vanished, (void)error;
    pthread_mutex_lock(&watch->lock);
    OrvexLink* link = watch->link != NULL && link_ref_if_alive(watch->link) ? watch->link : NULL;
    pthread_mutex_unlock(&watch->lock);
    if (link != NULL) {
        orvex_worker_post(bus_lost, link, (GDestroyNotify)orvex_link_unref);
    }
}

// -- signals -------------------------------------------------------------------------------------

void orvex_link_add(OrvexLink* link, guint connection, OrvexTransfer* transfer) {
    g_hash_table_insert(link->transfers, GUINT_TO_POINTER(connection), transfer);
}

static OrvexTransfer* find_transfer(OrvexLink* link, guint connection) {
    return g_hash_table_lookup(link->transfers, GUINT_TO_POINTER(connection));
}

void orvex_link_remove(OrvexLink* link, guint connection, OrvexTransfer* transfer) {
    if (find_transfer(link, connection) == transfer) { // the next daemon gives numbers again
        g_hash_table_remove(link->transfers, GUINT_TO_POINTER(connection));
    }
}

/// Tells each request of the list "1:1 3:17", and those that it leaves out.
static void tell_failed(OrvexLink* link, guint code, const char* message, const char* keys) {
    g_autoptr(GHashTable) named = g_hash_table_new(NULL, NULL);
    for (const char* at = keys; *at != '\0';) {
        char* end = NULL;
        const guint connection = (guint)strtoul(at, &end, 10);
        const guint request = *end == ':' ? (guint)strtoul(end + 1, &end, 10) : 0;
        OrvexTransfer* transfer = find_transfer(link, connection);
        if (transfer != NULL && orvex_transfer_failed(transfer, request, code, message)) {
            g_hash_table_add(named, GUINT_TO_POINTER(connection));
        }
        while (*end != '\0' && *end != ' ') {
            ++end;
        }
        at = *end == ' ' ? end + 1 : end;
    }
    g_autoptr(GList) connections = g_hash_table_get_keys(link->transfers);
    for (GList* each = connections; each != NULL; each = each->next) {
        if (!g_hash_table_contains(named, each->data)) {
            OrvexTransfer* transfer = g_hash_table_lookup(link->transfers, each->data);
            orvex_transfer_exchange_failed(transfer, code, message);
        }
    }
}

static void tell_about_request(OrvexLink* link, GVariant* arguments,
                               void (*action)(OrvexTransfer*, guint request)) {
    guint connection = 0;
    guint request = 0;
    if (!g_variant_is_of_type(arguments, G_VARIANT_TYPE("(uu)"))) {
        return;
    }
    g_variant_get(arguments, "(uu)", &connection, &request);
    OrvexTransfer* transfer = find_transfer(link, connection);
    if (transfer != NULL) {
        action(transfer, request);
    }
}

static void daemon_signal(GDBusConnection* bus, const char* sender, const char* path,
                          const char* interface, const char* name, GVariant* arguments,
                          gpointer data) {
    OrvexLink* link = data;
    (void)bus, (void)path, (void)interface;
    // Others might like to be the daemon.
    if (g_strcmp0(sender, link->owner) != 0 || !link_ref_if_alive(link)) {
        return;
    }
    if (g_str_equal(name, "requestData")) {
        tell_about_request(link, arguments, orvex_transfer_data_wanted);
    } else if (g_str_equal(name, "errorSignal") &&
               g_variant_is_of_type(arguments, G_VARIANT_TYPE("(uss)"))) {
        guint code = 0;
        const char* message = NULL;
        const char* keys = NULL;
        g_variant_get(arguments, "(u&s&s)", &code, &message, &keys);
        tell_failed(link, code, message, keys);
    } else if (g_str_equal(name, "connectionStatusChanged") &&
               g_variant_is_of_type(arguments, G_VARIANT_TYPE("(u)"))) {
        guint status = 0;
        g_variant_get(arguments, "(u)", &status);
        set_status(link, status);
    }
    orvex_link_unref(link);
}

typedef struct {
    OrvexLink* link;
    guint connection;
    guint request;
} Cancel;

/// The daemon obeys the user whose request it is, and root; it obeys nobody who has left the bus
/// before it could ask who that was.
static void canceller_known(GObject* bus, GAsyncResult* result, gpointer data) {
    g_autofree Cancel* cancel = data;
    OrvexLink* link = cancel->link;
    guint32 user = NOBODY;
    g_autoptr(GVariant) reply = g_dbus_connection_call_finish(G_DBUS_CONNECTION(bus), result, NULL);
    OrvexTransfer* transfer = find_transfer(link, cancel->connection);
    if (reply != NULL) {
        g_variant_get(reply, "(u)", &user);
    }
    if (transfer != NULL && user == NOBODY) {
        orvex_transfer_may_be_cancelled(transfer, cancel->request); // the daemon may be quicker
    } else if (transfer != NULL && (user == 0 || user == link->user)) {
        orvex_transfer_cancelled(transfer, cancel->request);
    }
    orvex_link_unref(link);
}

/// The daemon does not tell that somebody has cancelled a request: it just stays silent. Everybody
/// can send this signal, on any path.
static void cancel_signal(GDBusConnection* bus, const char* sender, const char* path,
                          const char* interface, const char* name, GVariant* arguments,
                          gpointer data) {
    OrvexLink* link = data;
    guint connection = 0;
    guint request = 0;
    (void)path, (void)interface, (void)name;
    if (!g_variant_is_of_type(arguments, G_VARIANT_TYPE("(uu)")) || !link_ref_if_alive(link)) {
        return;
    }
    g_variant_get(arguments, "(uu)", &connection, &request);
    if (find_transfer(link, connection) != NULL && sender != NULL) {
        Cancel* cancel = g_new(Cancel, 1);
        *cancel = (Cancel){orvex_link_ref(link), connection, request};
        orvex_ask_for_user(bus, sender, canceller_known, cancel);
    }
    orvex_link_unref(link);
}

// -- opening -------------------------------------------------------------------------------------

/// Answers all who have asked for it. Takes the error.
static void answer_openers(OrvexLink* link, GError* error) {
    g_autoptr(GList) openers = g_steal_pointer(&link->openers);
    for (GList* each = openers; each != NULL; each = each->next) {
        if (error != NULL) {
            orvex_task_return_error(each->data, g_error_copy(error));
        } else {
            orvex_task_return_boolean(each->data, TRUE);
        }
    }
    g_clear_error(&error);
}

/// From now on changes are told.
static void opened(OrvexLink* link) {
    pthread_mutex_lock(&link->lock);
    link->is_open = TRUE;
    pthread_mutex_unlock(&link->lock);
    answer_openers(link, NULL);
}

/// It may be tried again. Takes the error.
static void fail_to_open(OrvexLink* link, GError* error) {
    leave_bus(link);
    set_owner(link, NULL);
    answer_openers(link, error);
}

/// Takes the error.
static void fail_without_bus(OrvexLink* link, GError* error) {
    if (!g_error_matches(error, G_IO_ERROR, G_IO_ERROR_CANCELLED)) {
        GError* cause = error;
        error = orvex_failure_new(ORVEX_ERROR_NO_BUS, 0, cause->message);
        g_error_free(cause);
    }
    fail_to_open(link, error);
}

/// The first one who has asked decides for all.
static GCancellable* cancellable_of(OrvexLink* link) {
    return g_task_get_cancellable(link->openers->data);
}

static void first_status(GObject* bus, GAsyncResult* result, gpointer data) {
    OrvexLink* link = data;
    GError* error = NULL;
    guint status = 0;
    (void)bus;
    // Other failures are told by the first request, which may also find another daemon.
    if (!read_status(link, result, &status, &error) &&
        (g_error_matches(error, ORVEX_ERROR, ORVEX_ERROR_ACCESS_DENIED) ||
         g_error_matches(error, G_IO_ERROR, G_IO_ERROR_CANCELLED))) {
        fail_to_open(link, error);
        return;
    }
    g_clear_error(&error);
    opened(link);
}

static void owner_found(GObject* bus, GAsyncResult* result, gpointer data) {
    OrvexLink* link = data;
    GError* error = NULL;
    g_autoptr(GVariant) reply =
        g_dbus_connection_call_finish(G_DBUS_CONNECTION(bus), result, &error);
    if (g_error_matches(error, G_IO_ERROR, G_IO_ERROR_CANCELLED)) {
        fail_to_open(link, error);
        return;
    }
    g_clear_error(&error);
    if (!has_bus(link)) {
        fail_to_open(link, orvex_failure_new(ORVEX_ERROR_NO_BUS, 0, NULL));
        return;
    }
    if (reply == NULL) { // nobody; the first request may start it
        opened(link);
        return;
    }
    const char* owner = NULL;
    g_variant_get(reply, "(&s)", &owner);
    set_owner(link, owner);
    ask_status(link, owner, FIRST_CALL_MS, cancellable_of(link), first_status, link);
}

static void own_user_known(GObject* bus, GAsyncResult* result, gpointer data) {
    OrvexLink* link = data;
    g_autoptr(GVariant) reply = g_dbus_connection_call_finish(G_DBUS_CONNECTION(bus), result, NULL);
    if (reply != NULL) {
        g_variant_get(reply, "(u)", &link->user);
    }
    orvex_link_unref(link);
}

static void subscribe(OrvexLink* link) {
    // One rule for all signals of the daemon, in force before the first request.
    link->signals = g_dbus_connection_signal_subscribe(
        link->bus, ORVEX_BUS_NAME, ORVEX_INTERFACE, NULL, ORVEX_PATH, NULL,
        G_DBUS_SIGNAL_FLAGS_NONE, daemon_signal, link, NULL);
    // The daemon obeys it on every path.
    link->cancels =
        g_dbus_connection_signal_subscribe(link->bus, NULL, ORVEX_INTERFACE, "cancel", NULL, NULL,
                                           G_DBUS_SIGNAL_FLAGS_NONE, cancel_signal, link, NULL);
    link->owners = g_dbus_connection_signal_subscribe(
        link->bus, "org.freedesktop.DBus", "org.freedesktop.DBus", "NameOwnerChanged",
        "/org/freedesktop/DBus", ORVEX_BUS_NAME, G_DBUS_SIGNAL_FLAGS_NONE, owner_changed, link,
        NULL);
    link->watch = watch_new(link);
    link->closed = g_signal_connect_data(link->bus, "closed", G_CALLBACK(bus_closed), link->watch,
                                         watch_unref, 0);
}

static void use_bus(OrvexLink* link, GDBusConnection* bus, gboolean owns) {
    link->bus = g_object_ref(bus);
    link->owns_bus = owns;
    orvex_remains_enter(link->remains, bus);
    subscribe(link);
    const char* name = g_dbus_connection_get_unique_name(bus);
    if (name != NULL) {
        orvex_ask_for_user(bus, name, own_user_known, orvex_link_ref(link));
    }
    orvex_ask_for_daemon(bus, cancellable_of(link), owner_found, link);
}

static void bus_reached(GObject* source, GAsyncResult* result, gpointer data) {
    OrvexLink* link = data;
    GError* error = NULL;
    g_autoptr(GDBusConnection) bus = g_dbus_connection_new_for_address_finish(result, &error);
    (void)source;
    if (bus == NULL) {
        fail_without_bus(link, error);
        return;
    }
    use_bus(link, bus, TRUE);
}

/// A connection of the library's own, so that its end does not end the program, as that of the
/// shared one would.
static void open_system_bus(OrvexLink* link) {
    GError* error = NULL;
    if (link->address == NULL) {
        link->address =
            g_dbus_address_get_for_bus_sync(G_BUS_TYPE_SYSTEM, cancellable_of(link), &error);
    }
    if (link->address == NULL) {
        fail_without_bus(link, error);
        return;
    }
    g_dbus_connection_new_for_address(link->address,
                                      G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                          G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION,
                                      NULL, cancellable_of(link), bus_reached, link);
}

/// The tasks of those who wait keep the link.
static void open_link(gpointer data) {
    GTask* task = data;
    OrvexLink* link = g_task_get_task_data(task);
    GDBusConnection* bus = g_object_get_data(G_OBJECT(task), "bus");
    if (link->is_open) { // once is enough
        orvex_task_return_boolean(task, TRUE);
        return;
    }
    link->openers = g_list_append(link->openers, task);
    if (link->openers->next != NULL) {
        return; // it is on its way
    }
    if (bus == NULL) {
        open_system_bus(link);
    } else if (g_dbus_connection_is_closed(bus)) {
        fail_to_open(link, orvex_failure_new(ORVEX_ERROR_NO_BUS, 0, NULL));
    } else {
        use_bus(link, bus, FALSE);
    }
}

void orvex_link_open(OrvexLink* link, GDBusConnection* bus, GTask* task) {
    g_task_set_task_data(task, orvex_link_ref(link), (GDestroyNotify)orvex_link_unref);
    if (bus != NULL) {
        g_object_set_data_full(G_OBJECT(task), "bus", g_object_ref(bus), g_object_unref);
    }
    orvex_worker_post(open_link, g_object_ref(task), NULL);
}

// -- places for transfers ------------------------------------------------------------------------

static gboolean has_room(OrvexLink* link) {
    return link->lost + CALLS_OF_A_TRANSFER * (link->seats + 1) <= MOST_CALLS;
}

/// The link for the next transfer: this one, or a spare one with room, or NULL. A connection that
/// was given cannot be made once more.
static OrvexLink* find_room(OrvexLink* home) {
    if (!home->owns_bus || has_room(home)) {
        return home;
    }
    for (GList* each = home->spares; each != NULL; each = each->next) {
        OrvexLink* spare = each->data;
        if (has_room(spare) && (!spare->is_open || has_bus(spare))) {
            return spare;
        }
    }
    return NULL;
}

static void drop_spare(OrvexLink* home, OrvexLink* spare) {
    home->spares = g_list_remove(home->spares, spare);
    orvex_link_unref(spare);
}

/// A spare link that nobody uses stays only if the next transfer would take it.
static void drop_idle_spares(OrvexLink* home) {
    const OrvexLink* next = find_room(home);
    for (GList* each = home->spares; each != NULL;) {
        OrvexLink* spare = each->data;
        each = each->next;
        if (spare->seats == 0 && spare != next) {
            drop_spare(home, spare);
        }
    }
}

static void spare_opened(GObject* source, GAsyncResult* result, gpointer data) {
    OrvexLink* home = data;
    OrvexLink* spare = g_task_get_task_data(G_TASK(result));
    (void)source;
    const gboolean is_open = g_task_propagate_boolean(G_TASK(result), NULL);
    g_autoptr(GList) boarding = g_steal_pointer(&spare->boarding);
    for (GList* each = boarding; each != NULL; each = each->next) {
        if (!is_open) { // the bus may allow no further connection; then this one has to do
            orvex_transfer_sit(each->data, home);
        }
        orvex_transfer_board(each->data);
        orvex_transfer_unref(each->data);
    }
    if (!is_open && g_list_find(home->spares, spare) != NULL) {
        drop_spare(home, spare);
    }
    orvex_link_unref(home);
}

static OrvexLink* add_spare(OrvexLink* home) {
    OrvexLink* spare = link_new(home->context);
    spare->address = g_strdup(home->address);
    home->spares = g_list_append(home->spares, spare);
    g_autoptr(GTask) task = g_task_new(NULL, NULL, spare_opened, orvex_link_ref(home));
    orvex_link_open(spare, NULL, task);
    return spare;
}

void orvex_link_find_seat(OrvexLink* home, OrvexTransfer* transfer) {
    OrvexLink* link = find_room(home);
    if (link == NULL) {
        link = add_spare(home);
    }
    orvex_transfer_sit(transfer, link);
    if (link->is_open) {
        orvex_transfer_board(transfer);
    } else {
        link->boarding = g_list_append(link->boarding, orvex_transfer_ref(transfer));
    }
}

void orvex_link_enter(OrvexLink* link) {
    ++link->seats;
}

void orvex_link_leave(OrvexLink* home, OrvexLink* link, guint lost) {
    --link->seats;
    link->lost += lost;
    drop_idle_spares(home);
}
