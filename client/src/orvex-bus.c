#include "orvex-bus.h"

#include "orvex-calls.h"
#include "orvex-counted.h"
#include "orvex-failure.h"
#include "orvex-names.h"
#include "orvex-sync.h"
#include "orvex-worker.h"

/// From where the connection's "closed" is told, which may be any thread, to the worker.
typedef struct {
    OrvexCounted counted; ///< the bus has it, and the signal handler
    pthread_mutex_t lock;
    OrvexBus* bus; ///< NULL once it was left; guarded by the lock
} Watch;

struct OrvexBus {
    const OrvexBusFunctions* functions;
    gpointer link;
    GDBusConnection* connection;
    gboolean is_own;
    char* address; ///< of a connection of its own
    guint signals;
    guint cancels;
    guint owners;
    gulong closed;
    Watch* watch;
    OrvexRemains* remains;
};

// -- life ----------------------------------------------------------------------------------------

OrvexBus* orvex_bus_new(const OrvexBusFunctions* functions, gpointer link) {
    OrvexBus* bus = g_new0(OrvexBus, 1);
    bus->functions = functions;
    bus->link = link;
    bus->remains = orvex_remains_new();
    return bus;
}

OrvexBus* orvex_bus_new_beside(const OrvexBus* other, const OrvexBusFunctions* functions,
                               gpointer link) {
    OrvexBus* bus = orvex_bus_new(functions, link);
    bus->address = g_strdup(other->address);
    return bus;
}

void orvex_bus_free(OrvexBus* bus) {
    orvex_bus_leave(bus);
    orvex_remains_free(bus->remains);
    g_free(bus->address);
    g_free(bus);
}

GDBusConnection* orvex_bus_get_connection(const OrvexBus* bus) {
    return bus->connection;
}

gboolean orvex_bus_is_connected(const OrvexBus* bus) {
    return orvex_is_connected(bus->connection);
}

gboolean orvex_bus_is_own(const OrvexBus* bus) {
    return bus->is_own;
}

OrvexRemains* orvex_bus_get_remains(const OrvexBus* bus) {
    return bus->remains;
}

// -- the end of the connection -------------------------------------------------------------------

static void watch_free(gpointer data) {
    Watch* watch = data;
    pthread_mutex_destroy(&watch->lock);
    g_free(watch);
}

static Watch* watch_new(OrvexBus* bus) {
    Watch* watch = g_new0(Watch, 1);
    orvex_counted_init(watch, watch_free);
    pthread_mutex_init(&watch->lock, NULL);
    watch->bus = bus;
    return watch;
}

static void watch_end(Watch* watch) {
    pthread_mutex_lock(&watch->lock);
    watch->bus = NULL;
    pthread_mutex_unlock(&watch->lock);
    orvex_counted_unref(watch);
}

/// The signal handler is gone.
static void watch_release(gpointer watch, GClosure* closure) {
    (void)closure;
    orvex_counted_unref(watch);
}

static void tell_closed(gpointer data) {
    OrvexBus* bus = data;
    bus->functions->closed(bus->link);
}

static void release_link(gpointer data) {
    OrvexBus* bus = data;
    orvex_counted_unref(bus->link);
}

/// On the thread of the context in which the connection was made.
static void connection_closed(GDBusConnection* connection, gboolean vanished, GError* error,
                              gpointer data) {
    Watch* watch = data;
    (void)connection, (void)vanished, (void)error;
    pthread_mutex_lock(&watch->lock);
    OrvexBus* bus =
        watch->bus != NULL && orvex_counted_ref_if_alive(watch->bus->link) ? watch->bus : NULL;
    pthread_mutex_unlock(&watch->lock);
    if (bus != NULL) {
        orvex_worker_post(tell_closed, bus, release_link);
    }
}

static void close_connection(GObject* connection, GAsyncResult* result, gpointer data) {
    (void)data;
    (void)g_dbus_connection_flush_finish(G_DBUS_CONNECTION(connection), result, NULL);
    g_dbus_connection_close(G_DBUS_CONNECTION(connection), NULL, NULL, NULL);
}

void orvex_bus_leave(OrvexBus* bus) {
    if (bus->connection == NULL) {
        return;
    }
    orvex_remains_leave(bus->remains);
    g_dbus_connection_signal_unsubscribe(bus->connection, bus->signals);
    g_dbus_connection_signal_unsubscribe(bus->connection, bus->cancels);
    g_dbus_connection_signal_unsubscribe(bus->connection, bus->owners);
    watch_end(g_steal_pointer(&bus->watch));
    g_signal_handler_disconnect(bus->connection, bus->closed);
    if (bus->is_own && !g_dbus_connection_is_closed(bus->connection)) {
        // Closing would overtake what is still to be written.
        g_dbus_connection_flush(bus->connection, NULL, close_connection, NULL);
    }
    g_clear_object(&bus->connection);
}

// -- signals -------------------------------------------------------------------------------------

static void daemon_signal(GDBusConnection* connection, const char* sender, const char* path,
                          const char* interface, const char* name, GVariant* arguments,
                          gpointer data) {
    OrvexBus* bus = data;
    (void)connection, (void)path, (void)interface;
    if (orvex_counted_ref_if_alive(bus->link)) {
        bus->functions->daemon_signal(bus->link, sender, name, arguments);
        release_link(bus);
    }
}

static void cancel_signal(GDBusConnection* connection, const char* sender, const char* path,
                          const char* interface, const char* name, GVariant* arguments,
                          gpointer data) {
    OrvexBus* bus = data;
    (void)connection, (void)path, (void)interface, (void)name;
    if (orvex_counted_ref_if_alive(bus->link)) {
        bus->functions->cancel_signal(bus->link, sender, arguments);
        release_link(bus);
    }
}

static void owner_changed(GDBusConnection* connection, const char* sender, const char* path,
                          const char* interface, const char* name, GVariant* arguments,
                          gpointer data) {
    OrvexBus* bus = data;
    const char* before = NULL;
    const char* after = NULL;
    (void)connection, (void)sender, (void)path, (void)interface, (void)name;
    if (g_variant_is_of_type(arguments, G_VARIANT_TYPE("(sss)")) &&
        orvex_counted_ref_if_alive(bus->link)) {
        g_variant_get(arguments, "(&s&s&s)", NULL, &before, &after);
        bus->functions->owner_changed(bus->link, before, after);
        release_link(bus);
    }
}

static void subscribe(OrvexBus* bus) {
    // One rule for all signals of the daemon, in force before the first request.
    bus->signals = g_dbus_connection_signal_subscribe(
        bus->connection, ORVEX_BUS_NAME, ORVEX_INTERFACE, NULL, ORVEX_PATH, NULL,
        G_DBUS_SIGNAL_FLAGS_NONE, daemon_signal, bus, NULL);
    // The daemon obeys it on every path, and everybody can send it.
    bus->cancels = g_dbus_connection_signal_subscribe(
        bus->connection, NULL, ORVEX_INTERFACE, "cancel", NULL, NULL, G_DBUS_SIGNAL_FLAGS_NONE,
        cancel_signal, bus, NULL);
    bus->owners = g_dbus_connection_signal_subscribe(
        bus->connection, "org.freedesktop.DBus", "org.freedesktop.DBus", "NameOwnerChanged",
        "/org/freedesktop/DBus", ORVEX_BUS_NAME, G_DBUS_SIGNAL_FLAGS_NONE, owner_changed, bus,
        NULL);
    bus->watch = watch_new(bus);
    bus->closed = g_signal_connect_data(bus->connection, "closed", G_CALLBACK(connection_closed),
                                        orvex_counted_ref(bus->watch), watch_release, 0);
}

// -- opening -------------------------------------------------------------------------------------

static void use_connection(OrvexBus* bus, GDBusConnection* connection, gboolean is_own) {
    bus->connection = g_object_ref(connection);
    bus->is_own = is_own;
    orvex_remains_enter(bus->remains, connection);
    subscribe(bus);
    bus->functions->reached(bus->link, NULL);
}

/// Takes the error.
static void not_reached(OrvexBus* bus, GError* error) {
    if (!g_error_matches(error, G_IO_ERROR, G_IO_ERROR_CANCELLED)) {
        GError* cause = error;
        error = orvex_failure_new(ORVEX_ERROR_NO_BUS, 0, cause->message);
        g_error_free(cause);
    }
    bus->functions->reached(bus->link, error);
}

static void connection_made(GObject* source, GAsyncResult* result, gpointer data) {
    OrvexBus* bus = data;
    GError* error = NULL;
    g_autoptr(GDBusConnection) connection =
        g_dbus_connection_new_for_address_finish(result, &error);
    (void)source;
    if (connection == NULL) {
        not_reached(bus, error);
        return;
    }
    use_connection(bus, connection, TRUE);
}

/// A connection of the library's own, so that its end does not end the program, as that of the
/// shared one would.
static void connect_to_system_bus(OrvexBus* bus, GCancellable* cancellable) {
    GError* error = NULL;
    if (bus->address == NULL) {
        bus->address = g_dbus_address_get_for_bus_sync(G_BUS_TYPE_SYSTEM, cancellable, &error);
    }
    if (bus->address == NULL) {
        not_reached(bus, error);
        return;
    }
    g_dbus_connection_new_for_address(bus->address,
                                      G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                          G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION,
                                      NULL, cancellable, connection_made, bus);
}

void orvex_bus_open(OrvexBus* bus, GDBusConnection* given, GCancellable* cancellable) {
    if (given == NULL) {
        connect_to_system_bus(bus, cancellable);
    } else if (g_dbus_connection_is_closed(given)) {
        bus->functions->reached(bus->link, orvex_failure_new(ORVEX_ERROR_NO_BUS, 0, NULL));
    } else {
        use_connection(bus, given, FALSE);
    }
}
