#include "orvex-link.h"

#include "orvex-failure.h"
#include "orvex-sync.h"
#include "orvex-transfer.h"
#include "orvex-worker.h"

#include <stdatomic.h>
#include <stdlib.h>
#include <unistd.h>

/// The daemon answers at once unless it hangs.
enum { CALL_TIMEOUT_MS = 25 * 1000, FIRST_CALL_MS = 5000, LAST_CALL_MS = 1000 };

/// What the daemon would keep if the process ended now.
typedef struct {
    guint connection;
    guint request;
    gboolean uploading;
} Remains;

struct OrvexLink {
    atomic_int refs;
    GDBusConnection* bus;
    gboolean owns_bus;
    guint signals;
    guint cancels;
    guint owners;
    gulong closed;
    gboolean is_open;
    GHashTable* transfers; ///< by the number of their connection; not owned
    GList* waiters;        ///< of Waiter
    GArray* remains;       ///< guarded by registry_lock

    GMainContext* context;
    void (*changed)(gpointer client, const char* property);
    GWeakRef* client; ///< the client's own; alive whenever it yields something

    pthread_mutex_t lock;
    char* owner;        ///< written by the worker under the lock
    OrvexStatus status; ///< likewise
};

/// Somebody waits until the network fits a policy.
typedef struct {
    OrvexLink* link;
    OrvexPolicy policy;
    GTask* task;
    GSource* cancelled;
} Waiter;

// -- what the end of the process leaves ----------------------------------------------------------

static pthread_mutex_t registry_lock = PTHREAD_MUTEX_INITIALIZER;
static GPtrArray* registry = NULL; ///< links with a connection to the bus; guarded by registry_lock
static pid_t registry_process = 0;

static void registry_add(OrvexLink* link) {
    pthread_mutex_lock(&registry_lock);
    if (registry == NULL) {
        registry = g_ptr_array_new();
        registry_process = getpid();
    }
    g_ptr_array_add(registry, link);
    pthread_mutex_unlock(&registry_lock);
}

static void registry_remove(OrvexLink* link) {
    pthread_mutex_lock(&registry_lock);
    g_ptr_array_remove_fast(registry, link);
    pthread_mutex_unlock(&registry_lock);
}

static guint find_remains(OrvexLink* link, guint connection) {
    guint index = 0;
    while (index < link->remains->len &&
           g_array_index(link->remains, Remains, index).connection != connection) {
        ++index;
    }
    return index;
}

void orvex_link_note_open(OrvexLink* link, guint connection, guint request, gboolean uploading) {
    const Remains remains = {connection, request, uploading};
    pthread_mutex_lock(&registry_lock);
    const guint index = find_remains(link, connection);
    if (index < link->remains->len) {
        g_array_index(link->remains, Remains, index) = remains;
    } else {
        g_array_append_val(link->remains, remains);
    }
    pthread_mutex_unlock(&registry_lock);
}

void orvex_link_note_closed(OrvexLink* link, guint connection) {
    pthread_mutex_lock(&registry_lock);
    const guint index = find_remains(link, connection);
    if (index < link->remains->len) {
        g_array_remove_index_fast(link->remains, index);
    }
    pthread_mutex_unlock(&registry_lock);
}

/// A call that nobody waits for.
static void send_call(GDBusConnection* bus, const char* member, GVariant* arguments) {
    g_autoptr(GDBusMessage) call =
        g_dbus_message_new_method_call(ORVEX_BUS_NAME, ORVEX_PATH, ORVEX_INTERFACE, member);
    g_dbus_message_set_flags(call, G_DBUS_MESSAGE_FLAGS_NO_REPLY_EXPECTED |
                                       G_DBUS_MESSAGE_FLAGS_NO_AUTO_START);
    g_dbus_message_set_body(call, arguments);
    // It fails on a closed connection only, behind which nothing is left.
    (void)g_dbus_connection_send_message(bus, call, G_DBUS_SEND_MESSAGE_FLAGS_NONE, NULL, NULL);
}

static void take_back(OrvexLink* link) {
    for (guint index = 0; index < link->remains->len; ++index) {
        const Remains* each = &g_array_index(link->remains, Remains, index);
        if (each->uploading) { // else the daemon would wait for the rest, and others with it
            GVariant* nothing = g_variant_new_fixed_array(G_VARIANT_TYPE_BYTE, "", 0, 1);
            send_call(link->bus, "sendData",
                      g_variant_new("(@aybuu)", nothing, TRUE, each->connection, each->request));
        }
        send_call(link->bus, "disconnect", g_variant_new("(u)", each->connection));
    }
    if (link->remains->len > 0) {
        // The bus has passed everything on when it answers.
        g_autoptr(GVariant) reply = g_dbus_connection_call_sync(
            link->bus, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus.Peer",
            "Ping", NULL, NULL, G_DBUS_CALL_FLAGS_NONE, LAST_CALL_MS, NULL, NULL);
    }
}

/// The process ends by exit(), with requests under way.
__attribute__((destructor)) static void take_back_all(void) {
    if (registry_process != getpid()) { // a fork has no requests of its own
        return;
    }
    pthread_mutex_lock(&registry_lock);
    g_ptr_array_foreach(registry, (GFunc)(void (*)(void))take_back, NULL);
    pthread_mutex_unlock(&registry_lock);
}

// -- life ----------------------------------------------------------------------------------------

OrvexLink* orvex_link_new(GMainContext* context, void (*changed)(gpointer, const char*),
                          GWeakRef* client) {
    OrvexLink* link = g_new0(OrvexLink, 1);
    atomic_init(&link->refs, 1);
    link->transfers = g_hash_table_new(NULL, NULL);
    link->remains = g_array_new(FALSE, FALSE, sizeof(Remains));
    link->context = g_main_context_ref(context);
    link->changed = changed;
    link->client = client;
    pthread_mutex_init(&link->lock, NULL);
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

static void close_bus(GObject* bus, GAsyncResult* result, gpointer data) {
    (void)data;
    (void)g_dbus_connection_flush_finish(G_DBUS_CONNECTION(bus), result, NULL);
    g_dbus_connection_close(G_DBUS_CONNECTION(bus), NULL, NULL, NULL);
}

static void leave_bus(OrvexLink* link) {
    if (link->bus == NULL) {
        return;
    }
    registry_remove(link);
    g_dbus_connection_signal_unsubscribe(link->bus, link->signals);
    g_dbus_connection_signal_unsubscribe(link->bus, link->cancels);
    g_dbus_connection_signal_unsubscribe(link->bus, link->owners);
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
    g_hash_table_unref(link->transfers);
    g_array_unref(link->remains);
    g_main_context_unref(link->context);
    g_weak_ref_clear(link->client);
    g_free(link->client);
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
    GDBusConnection* bus = link->bus;
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

typedef struct {
    OrvexLink* link;
    const char* property;
} Change;

static void change_tell(gpointer data) {
    const Change* change = data;
    g_autoptr(GObject) client = g_weak_ref_get(change->link->client);
    if (client != NULL) {
        change->link->changed(client, change->property);
    }
}

static void change_free(gpointer data) {
    Change* change = data;
    orvex_link_unref(change->link);
    g_free(change);
}

static void tell(OrvexLink* link, const char* property) {
    if (!link->is_open) {
        return; // nobody has seen another value
    }
    Change* change = g_new(Change, 1);
    *change = (Change){orvex_link_ref(link), property};
    orvex_post(link->context, G_PRIORITY_DEFAULT, change_tell, change, change_free);
}

// -- waiting for the network ---------------------------------------------------------------------

static gboolean is_usable(OrvexStatus status, OrvexPolicy policy) {
    if ((status & ORVEX_STATUS_CONNECTED) == 0) {
        return FALSE;
    }
    switch (policy) {
    case ORVEX_POLICY_ANY:
        return TRUE;
    case ORVEX_POLICY_NOT_FLAGGED:
        return (status & ORVEX_STATUS_KIND_ONE) != 0 || (status & ORVEX_STATUS_FLAGGED) == 0;
    case ORVEX_POLICY_KIND_ONE:
    default:
        return (status & ORVEX_STATUS_KIND_ONE) != 0;
    }
}

/// Takes the waiter from the list. The caller answers its task.
static GTask* waiter_free(Waiter* waiter) {
    GTask* task = waiter->task;
    waiter->link->waiters = g_list_remove(waiter->link->waiters, waiter);
    orvex_source_clear(&waiter->cancelled);
    g_free(waiter);
    return task;
}

static void serve_waiters(OrvexLink* link) {
    for (GList* each = link->waiters; each != NULL;) {
        Waiter* waiter = each->data;
        each = each->next;
        if (is_usable(link->status, waiter->policy)) {
            orvex_task_return_boolean(waiter_free(waiter), TRUE);
        }
    }
}

static void fail_waiters(OrvexLink* link, const GError* error) {
    while (link->waiters != NULL) {
        orvex_task_return_error(waiter_free(link->waiters->data), g_error_copy(error));
    }
}

// -- status --------------------------------------------------------------------------------------

static void set_status(OrvexLink* link, guint status) {
    const gboolean changed = link->status != (OrvexStatus)status;
    pthread_mutex_lock(&link->lock);
    link->status = (OrvexStatus)status;
    pthread_mutex_unlock(&link->lock);
    if (changed) {
        tell(link, "status");
    }
    serve_waiters(link);
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
    // By its name, the daemon is started if it is not there.
    const GDBusCallFlags flags =
        *name == ':' ? G_DBUS_CALL_FLAGS_NO_AUTO_START : G_DBUS_CALL_FLAGS_NONE;
    g_dbus_connection_call(link->bus, name, ORVEX_PATH, "org.freedesktop.DBus.Properties", "Get",
                           g_variant_new("(ss)", ORVEX_INTERFACE, "connectionStatus"),
                           G_VARIANT_TYPE("(v)"), flags, timeout, cancellable, callback, data);
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

static gboolean is_open(OrvexLink* link) {
    return link->bus != NULL && !g_dbus_connection_is_closed(link->bus);
}

static void query_status(gpointer data) {
    GTask* task = data;
    OrvexLink* link = g_task_get_task_data(task);
    if (!is_open(link)) {
        orvex_task_return_error(task, orvex_failure_new(ORVEX_ERROR_NO_BUS, 0, NULL));
        return;
    }
    ask_status(link, ORVEX_BUS_NAME, CALL_TIMEOUT_MS, g_task_get_cancellable(task), status_answered,
               task);
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
    if (!read_status(link, result, &status, &error) &&
        !g_error_matches(error, ORVEX_ERROR, ORVEX_ERROR_DAEMON_GONE)) {
        fail_waiters(link, error);
    }
    orvex_link_unref(link);
}

/// Asks a daemon that may have to be started, for those who wait.
static void ask_for_waiters(OrvexLink* link) {
    ask_status(link, ORVEX_BUS_NAME, CALL_TIMEOUT_MS, NULL, waiters_answered, orvex_link_ref(link));
}

static gboolean waiter_cancelled(GCancellable* cancellable, gpointer data) {
    GError* error = NULL;
    g_cancellable_set_error_if_cancelled(cancellable, &error);
    orvex_task_return_error(waiter_free(data), error);
    return G_SOURCE_REMOVE;
}

static void wait_usable(gpointer data) {
    Waiter* waiter = data;
    OrvexLink* link = waiter->link;
    if (!is_open(link)) {
        orvex_task_return_error(waiter_free(waiter),
                                orvex_failure_new(ORVEX_ERROR_NO_BUS, 0, NULL));
        return;
    }
    link->waiters = g_list_prepend(link->waiters, waiter);
    GCancellable* cancellable = g_task_get_cancellable(waiter->task);
    if (cancellable != NULL) {
        waiter->cancelled = g_cancellable_source_new(cancellable);
        g_source_set_callback(waiter->cancelled, G_SOURCE_FUNC(waiter_cancelled), waiter, NULL);
        g_source_attach(waiter->cancelled, orvex_worker_context());
    }
    ask_for_waiters(link);
}

void orvex_link_wait_usable(OrvexLink* link, OrvexPolicy policy, GTask* task) {
    Waiter* waiter = g_new0(Waiter, 1);
    waiter->link = link;
    waiter->policy = policy;
    waiter->task = g_object_ref(task);
    g_task_set_task_data(task, orvex_link_ref(link), (GDestroyNotify)orvex_link_unref);
    orvex_worker_post(wait_usable, waiter, NULL);
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
        tell(link, "running");
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
        set_owner(link, NULL);
        set_status(link, 0);
        for_each_transfer(link, orvex_transfer_daemon_gone);
    }
    if (*after != '\0') {
        set_owner(link, after);
        ask_status(link, after, CALL_TIMEOUT_MS, NULL, new_status, orvex_link_ref(link));
    } else if (link->waiters != NULL) {
        ask_for_waiters(link);
    }
    orvex_link_unref(link);
}

static void bus_closed(GDBusConnection* bus, gboolean vanished, GError* error, gpointer data) {
    OrvexLink* link = data;
    (void)bus, (void)vanished, (void)error;
    if (!link_ref_if_alive(link)) {
        return;
    }
    g_autoptr(GError) no_bus = orvex_failure_new(ORVEX_ERROR_NO_BUS, 0, NULL);
    set_owner(link, NULL);
    set_status(link, 0);
    for_each_transfer(link, orvex_transfer_daemon_gone);
    fail_waiters(link, no_bus);
    orvex_link_unref(link);
}

// -- signals -------------------------------------------------------------------------------------

void orvex_link_add(OrvexLink* link, guint connection, OrvexTransfer* transfer) {
    g_hash_table_insert(link->transfers, GUINT_TO_POINTER(connection), transfer);
}

void orvex_link_remove(OrvexLink* link, guint connection) {
    g_hash_table_remove(link->transfers, GUINT_TO_POINTER(connection));
}

static OrvexTransfer* find_transfer(OrvexLink* link, guint connection) {
    return g_hash_table_lookup(link->transfers, GUINT_TO_POINTER(connection));
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

/// The daemon does not tell that somebody has cancelled a request: it just stays silent.
static void cancel_signal(GDBusConnection* bus, const char* sender, const char* path,
                          const char* interface, const char* name, GVariant* arguments,
                          gpointer data) {
    (void)bus, (void)sender, (void)path, (void)interface, (void)name;
    if (link_ref_if_alive(data)) {
        tell_about_request(data, arguments, orvex_transfer_cancelled);
        orvex_link_unref(data);
    }
}

// -- opening -------------------------------------------------------------------------------------

/// From now on changes are told.
static void opened(GTask* task) {
    OrvexLink* link = g_task_get_task_data(task);
    link->is_open = TRUE;
    orvex_task_return_boolean(task, TRUE);
}

static void first_status(GObject* bus, GAsyncResult* result, gpointer data) {
    GTask* task = data;
    g_autoptr(GError) error = NULL;
    guint status = 0;
    (void)bus;
    // Other failures are told by the first request, which may also find another daemon.
    if (!read_status(g_task_get_task_data(task), result, &status, &error) &&
        (g_error_matches(error, ORVEX_ERROR, ORVEX_ERROR_ACCESS_DENIED) ||
         g_error_matches(error, G_IO_ERROR, G_IO_ERROR_CANCELLED))) {
        orvex_task_return_error(task, g_steal_pointer(&error));
        return;
    }
    opened(task);
}

static void owner_found(GObject* bus, GAsyncResult* result, gpointer data) {
    GTask* task = data;
    OrvexLink* link = g_task_get_task_data(task);
    g_autoptr(GError) error = NULL;
    g_autoptr(GVariant) reply =
        g_dbus_connection_call_finish(G_DBUS_CONNECTION(bus), result, &error);
    if (g_error_matches(error, G_IO_ERROR, G_IO_ERROR_CANCELLED)) {
        orvex_task_return_error(task, g_steal_pointer(&error));
        return;
    }
    if (reply == NULL) { // nobody; the first request may start it
        opened(task);
        return;
    }
    const char* owner = NULL;
    g_variant_get(reply, "(&s)", &owner);
    set_owner(link, owner);
    ask_status(link, owner, FIRST_CALL_MS, g_task_get_cancellable(task), first_status, task);
}

static void use_bus(OrvexLink* link, GDBusConnection* bus, gboolean owns, GTask* task) {
    pthread_mutex_lock(&link->lock);
    link->bus = g_object_ref(bus);
    pthread_mutex_unlock(&link->lock);
    link->owns_bus = owns;
    registry_add(link);
    // One rule for all signals of the daemon, in force before the first request.
    link->signals = g_dbus_connection_signal_subscribe(bus, ORVEX_BUS_NAME, ORVEX_INTERFACE, NULL,
                                                       ORVEX_PATH, NULL, G_DBUS_SIGNAL_FLAGS_NONE,
                                                       daemon_signal, link, NULL);
    link->cancels =
        g_dbus_connection_signal_subscribe(bus, NULL, ORVEX_INTERFACE, "cancel", NULL, NULL,
                                           G_DBUS_SIGNAL_FLAGS_NONE, cancel_signal, link, NULL);
    link->owners = g_dbus_connection_signal_subscribe(
        bus, "org.freedesktop.DBus", "org.freedesktop.DBus", "NameOwnerChanged",
        "/org/freedesktop/DBus", ORVEX_BUS_NAME, G_DBUS_SIGNAL_FLAGS_NONE, owner_changed, link,
        NULL);
    link->closed = g_signal_connect(bus, "closed", G_CALLBACK(bus_closed), link);
    g_dbus_connection_call(
        bus, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
        "GetNameOwner", g_variant_new("(s)", ORVEX_BUS_NAME), G_VARIANT_TYPE("(s)"),
        G_DBUS_CALL_FLAGS_NONE, CALL_TIMEOUT_MS, g_task_get_cancellable(task), owner_found, task);
}

static void fail_to_open(GTask* task, GError* error) {
    if (!g_error_matches(error, G_IO_ERROR, G_IO_ERROR_CANCELLED)) {
        GError* cause = error;
        error = orvex_failure_new(ORVEX_ERROR_NO_BUS, 0, cause->message);
        g_error_free(cause);
    }
    orvex_task_return_error(task, error);
}

static void bus_reached(GObject* source, GAsyncResult* result, gpointer data) {
    GTask* task = data;
    GError* error = NULL;
    g_autoptr(GDBusConnection) bus = g_dbus_connection_new_for_address_finish(result, &error);
    (void)source;
    if (bus == NULL) {
        fail_to_open(task, error);
        return;
    }
    use_bus(g_task_get_task_data(task), bus, TRUE, task);
}

/// A connection of the library's own, so that its end does not end the program, as that of the
/// shared one would.
static void open_system_bus(gpointer data) {
    GTask* task = data;
    GError* error = NULL;
    g_autofree char* address =
        g_dbus_address_get_for_bus_sync(G_BUS_TYPE_SYSTEM, g_task_get_cancellable(task), &error);
    if (address == NULL) {
        fail_to_open(task, error);
        return;
    }
    g_dbus_connection_new_for_address(address,
                                      G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                          G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION,
                                      NULL, g_task_get_cancellable(task), bus_reached, task);
}

static void open_given_bus(gpointer data) {
    GTask* task = data;
    GDBusConnection* bus = g_object_get_data(G_OBJECT(task), "bus");
    if (g_dbus_connection_is_closed(bus)) {
        orvex_task_return_error(task, orvex_failure_new(ORVEX_ERROR_NO_BUS, 0, NULL));
        return;
    }
    use_bus(g_task_get_task_data(task), bus, FALSE, task);
}

void orvex_link_open(OrvexLink* link, GDBusConnection* bus, GTask* task) {
    g_task_set_task_data(task, orvex_link_ref(link), (GDestroyNotify)orvex_link_unref);
    if (bus != NULL) {
        g_object_set_data_full(G_OBJECT(task), "bus", g_object_ref(bus), g_object_unref);
    }
    orvex_worker_post(bus != NULL ? open_given_bus : open_system_bus, g_object_ref(task), NULL);
}
