#include "orvex-link.h"

#include "orvex-audience.h"
#include "orvex-bus.h"
#include "orvex-calls.h"
#include "orvex-failure.h"
#include "orvex-names.h"
#include "orvex-sync.h"
#include "orvex-waiters.h"
#include "orvex-worker.h"

enum { FIRST_CALL_MS = 5000 };

/// The daemon never answers the held call of a request that failed or was given up. The bus keeps
/// the place for the answer until the caller or the daemon leaves, and refuses calls when a
/// connection has too many such places: 128 unless its configuration says otherwise, and 16 is in
/// use. So each connection serves a few transfers, and is left when it has lost too many answers.
enum { MOST_CALLS = 16, CALLS_OF_A_TRANSFER = 2 };

struct OrvexLink {
    OrvexCounted counted;
    OrvexBus* bus;
    OrvexPassengers* passengers;
    OrvexWaiters* waiters;
    OrvexAudience* audience; ///< NULL for one of which no client hears
    GList* openers;          ///< of GTask, while it is opened; they keep the link

    guint seats; ///< transfers that use it
    guint lost;  ///< calls that were given up and are never answered

    pthread_mutex_t lock;
    gboolean is_open;   ///< written by the worker under the lock
    char* owner;        ///< likewise
    OrvexStatus status; ///< likewise
};

// -- properties ----------------------------------------------------------------------------------

GDBusConnection* orvex_link_get_bus(OrvexLink* link) {
    pthread_mutex_lock(&link->lock);
    GDBusConnection* bus = link->is_open ? orvex_bus_get_connection(link->bus) : NULL;
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

gboolean orvex_link_is_own(OrvexLink* link) {
    return orvex_bus_is_own(link->bus);
}

gboolean orvex_link_is_open(OrvexLink* link) {
    return link->is_open;
}

gboolean orvex_link_is_connected(OrvexLink* link) {
    return orvex_bus_is_connected(link->bus);
}

OrvexPassengers* orvex_link_get_passengers(OrvexLink* link) {
    return link->passengers;
}

OrvexRemains* orvex_link_get_remains(OrvexLink* link) {
    return orvex_bus_get_remains(link->bus);
}

/// Changes are told once it is open: before, nobody has seen another value.
static gboolean is_heard(const OrvexLink* link) {
    return link->is_open && link->audience != NULL;
}

static void set_owner(OrvexLink* link, const char* owner) {
    const gboolean was_running = link->owner != NULL;
    pthread_mutex_lock(&link->lock);
    g_free(link->owner);
    link->owner = g_strdup(owner);
    pthread_mutex_unlock(&link->lock);
    if (was_running != (owner != NULL) && is_heard(link)) {
        orvex_audience_tell_running(link->audience);
    }
}

static void set_status(OrvexLink* link, guint status) {
    const gboolean changed = link->status != (OrvexStatus)status;
    pthread_mutex_lock(&link->lock);
    link->status = (OrvexStatus)status;
    pthread_mutex_unlock(&link->lock);
    if (changed && is_heard(link)) {
        orvex_audience_tell_status(link->audience);
    }
    orvex_waiters_serve(link->waiters, link->status);
}

// -- places for transfers ------------------------------------------------------------------------

void orvex_link_enter(OrvexLink* link) {
    ++link->seats;
}

void orvex_link_leave(OrvexLink* link, guint lost) {
    --link->seats;
    link->lost += lost;
}

gboolean orvex_link_has_room(OrvexLink* link) {
    return link->lost + CALLS_OF_A_TRANSFER * (link->seats + 1) <= MOST_CALLS;
}

gboolean orvex_link_is_idle(OrvexLink* link) {
    return link->seats == 0;
}

// -- status --------------------------------------------------------------------------------------

static void ask_for_status(OrvexLink* link, const char* name, int timeout,
                           GCancellable* cancellable, GAsyncReadyCallback callback, gpointer data) {
    orvex_ask_for_status(orvex_bus_get_connection(link->bus), name, timeout, cancellable, callback,
                         data);
}

/// The outcome of a question for the status, which becomes the property too.
static gboolean read_status(OrvexLink* link, GAsyncResult* result, guint* status, GError** error) {
    GError* failure = NULL;
    g_autoptr(GVariant) reply =
        g_dbus_connection_call_finish(orvex_bus_get_connection(link->bus), result, &failure);
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
    if (!orvex_link_is_connected(link)) {
        orvex_task_return_error(task, orvex_failure_new(ORVEX_ERROR_NO_BUS, 0, NULL));
        return;
    }
    ask_for_status(link, ORVEX_BUS_NAME, ORVEX_ANSWERED_AT_ONCE_MS, g_task_get_cancellable(task),
                   status_answered, task);
}

void orvex_link_query_status(OrvexLink* link, GTask* task) {
    g_task_set_task_data(task, orvex_counted_ref(link), orvex_counted_unref);
    orvex_worker_post(query_status, g_object_ref(task), NULL);
}

static void waiters_answered(GObject* bus, GAsyncResult* result, gpointer data) {
    OrvexLink* link = data;
    g_autoptr(GError) error = NULL;
    guint status = 0;
    (void)bus;
    // A daemon that went away meanwhile is asked again when its name changes hands.
    if (!read_status(link, result, &status, &error)) {
        if (!orvex_link_is_connected(link)) {
            orvex_waiters_fail_without_bus(link->waiters);
        } else if (!g_error_matches(error, ORVEX_ERROR, ORVEX_ERROR_DAEMON_GONE)) {
            orvex_waiters_fail(link->waiters, error);
        }
    }
    orvex_counted_unref(link);
}

static void ask_for_waiters(gpointer link) {
    ask_for_status(link, ORVEX_BUS_NAME, ORVEX_ANSWERED_AT_ONCE_MS, NULL, waiters_answered,
                   orvex_counted_ref(link));
}

static gboolean is_connected_for_waiters(gpointer link) {
    return orvex_link_is_connected(link);
}

static const OrvexWaitersLink waiters_link = {
    .ask = ask_for_waiters,
    .is_connected = is_connected_for_waiters,
};

void orvex_link_wait_usable(OrvexLink* link, OrvexPolicy policy, GTask* task) {
    g_task_set_task_data(task, orvex_counted_ref(link), orvex_counted_unref);
    orvex_waiters_wait(link->waiters, policy, task);
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
    orvex_bus_leave(link->bus);
    set_owner(link, NULL);
    answer_openers(link, error);
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
    if (!orvex_link_is_connected(link)) {
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
    ask_for_status(link, owner, FIRST_CALL_MS, cancellable_of(link), first_status, link);
}

/// Takes the error.
static void bus_reached(gpointer data, GError* error) {
    OrvexLink* link = data;
    if (error != NULL) {
        fail_to_open(link, error);
        return;
    }
    GDBusConnection* bus = orvex_bus_get_connection(link->bus);
    orvex_passengers_ask_for_own_user(link->passengers, bus);
    orvex_ask_for_daemon(bus, cancellable_of(link), owner_found, link);
}

static void open_link(gpointer data) {
    GTask* task = data;
    OrvexLink* link = g_task_get_task_data(task);
    if (link->is_open) { // once is enough
        orvex_task_return_boolean(task, TRUE);
        return;
    }
    link->openers = g_list_append(link->openers, task);
    if (link->openers->next == NULL) { // else it is on its way
        orvex_bus_open(link->bus, g_object_get_data(G_OBJECT(task), "bus"), cancellable_of(link));
    }
}

void orvex_link_open(OrvexLink* link, GDBusConnection* bus, GTask* task) {
    g_task_set_task_data(task, orvex_counted_ref(link), orvex_counted_unref);
    if (bus != NULL) {
        g_object_set_data_full(G_OBJECT(task), "bus", g_object_ref(bus), g_object_unref);
    }
    orvex_worker_post(open_link, g_object_ref(task), NULL);
}

// -- what the bus tells --------------------------------------------------------------------------

static void new_status(GObject* bus, GAsyncResult* result, gpointer data) {
    OrvexLink* link = data;
    guint status = 0;
    (void)bus;
    // A daemon that does not tell is as one without a network.
    (void)read_status(link, result, &status, NULL);
    orvex_counted_unref(link);
}

static void daemon_lost(OrvexLink* link) {
    set_owner(link, NULL);
    set_status(link, 0);
    orvex_passengers_daemon_gone(link->passengers);
}

static void owner_changed(gpointer data, const char* before, const char* after) {
    OrvexLink* link = data;
    if (*before != '\0') {
        link->lost = 0; // the bus has answered in its place
        daemon_lost(link);
    }
    if (*after != '\0') {
        set_owner(link, after);
        ask_for_status(link, after, ORVEX_ANSWERED_AT_ONCE_MS, NULL, new_status,
                       orvex_counted_ref(link));
    } else if (!orvex_waiters_is_empty(link->waiters)) {
        ask_for_waiters(link);
    }
}

static void bus_closed(gpointer data) {
    OrvexLink* link = data;
    daemon_lost(link);
    orvex_waiters_fail_without_bus(link->waiters);
}

static void daemon_signal(gpointer data, const char* sender, const char* name,
                          GVariant* arguments) {
    OrvexLink* link = data;
    if (g_strcmp0(sender, link->owner) != 0) { // others might like to be the daemon
        return;
    }
    if (g_str_equal(name, "requestData")) {
        orvex_passengers_data_wanted(link->passengers, arguments);
    } else if (g_str_equal(name, "errorSignal")) {
        orvex_passengers_failed(link->passengers, arguments);
    } else if (g_str_equal(name, "connectionStatusChanged") &&
               g_variant_is_of_type(arguments, G_VARIANT_TYPE("(u)"))) {
        guint status = 0;
        g_variant_get(arguments, "(u)", &status);
        set_status(link, status);
    }
}

static void cancel_signal(gpointer data, const char* sender, GVariant* arguments) {
    OrvexLink* link = data;
    orvex_passengers_cancel(link->passengers, orvex_bus_get_connection(link->bus), sender,
                            arguments);
}

static const OrvexBusFunctions bus_functions = {
    .reached = bus_reached,
    .daemon_signal = daemon_signal,
    .cancel_signal = cancel_signal,
    .owner_changed = owner_changed,
    .closed = bus_closed,
};

// -- life ----------------------------------------------------------------------------------------

static void link_free(gpointer data) {
    OrvexLink* link = data;
    orvex_bus_free(link->bus);
    orvex_counted_unref(link->passengers);
    orvex_waiters_free(link->waiters);
    g_clear_pointer(&link->audience, orvex_audience_free);
    pthread_mutex_destroy(&link->lock);
    g_free(link->owner);
    g_free(link);
}

static void link_unused(gpointer link) {
    orvex_worker_post(link_free, link, NULL);
}

static OrvexLink* link_new(void) {
    OrvexLink* link = g_new0(OrvexLink, 1);
    orvex_counted_init(link, link_unused);
    link->passengers = orvex_passengers_new();
    link->waiters = orvex_waiters_new(&waiters_link, link);
    pthread_mutex_init(&link->lock, NULL);
    return link;
}

OrvexLink* orvex_link_new(GMainContext* context, void (*changed)(gpointer, const char*),
                          gpointer client) {
    OrvexLink* link = link_new();
    link->bus = orvex_bus_new(&bus_functions, link);
    link->audience = orvex_audience_new(context, changed, client);
    return link;
}

OrvexLink* orvex_link_new_beside(OrvexLink* other) {
    OrvexLink* link = link_new();
    link->bus = orvex_bus_new_beside(other->bus, &bus_functions, link);
    return link;
}
