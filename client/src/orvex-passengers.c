#include "orvex-passengers.h"

#include "orvex-calls.h"

#include <stdlib.h>

/// No user has this number.
#define NOBODY G_MAXUINT32

struct OrvexPassengers {
    OrvexCounted counted;
    GHashTable* table; ///< by the number of their connection; not owned
    guint32 user;      ///< as the bus knows this process
};

static void passengers_free(gpointer data) {
    OrvexPassengers* passengers = data;
    g_hash_table_unref(passengers->table);
    g_free(passengers);
}

OrvexPassengers* orvex_passengers_new(void) {
    OrvexPassengers* passengers = g_new0(OrvexPassengers, 1);
    orvex_counted_init(passengers, passengers_free);
    passengers->table = g_hash_table_new(NULL, NULL);
    passengers->user = NOBODY;
    return passengers;
}

static OrvexPassenger* find(OrvexPassengers* passengers, guint connection) {
    return g_hash_table_lookup(passengers->table, GUINT_TO_POINTER(connection));
}

void orvex_passengers_add(OrvexPassengers* passengers, guint connection,
                          OrvexPassenger* passenger) {
    g_hash_table_insert(passengers->table, GUINT_TO_POINTER(connection), passenger);
}

void orvex_passengers_remove(OrvexPassengers* passengers, guint connection,
                             OrvexPassenger* passenger) {
    if (find(passengers, connection) == passenger) { // the next daemon gives numbers again
        g_hash_table_remove(passengers->table, GUINT_TO_POINTER(connection));
    }
}

// -- what the daemon tells -----------------------------------------------------------------------

void orvex_passengers_data_wanted(OrvexPassengers* passengers, GVariant* arguments) {
    guint connection = 0;
    guint request = 0;
    if (!g_variant_is_of_type(arguments, G_VARIANT_TYPE("(uu)"))) {
        return;
    }
    g_variant_get(arguments, "(uu)", &connection, &request);
    OrvexPassenger* passenger = find(passengers, connection);
    if (passenger != NULL) {
        passenger->functions->data_wanted(passenger, request);
    }
}

/// Tells each request of the list "1:1 3:17". @return the connections that were told, as a set
static GHashTable* tell_named(OrvexPassengers* passengers, guint code, const char* message,
                              const char* keys) {
    GHashTable* named = g_hash_table_new(NULL, NULL);
    for (const char* at = keys; *at != '\0';) {
        char* end = NULL;
        const guint connection = (guint)strtoul(at, &end, 10);
        const guint request = *end == ':' ? (guint)strtoul(end + 1, &end, 10) : 0;
        OrvexPassenger* passenger = find(passengers, connection);
        if (passenger != NULL && passenger->functions->failed(passenger, request, code, message)) {
            g_hash_table_add(named, GUINT_TO_POINTER(connection));
        }
        while (*end != '\0' && *end != ' ') {
            ++end;
        }
        at = *end == ' ' ? end + 1 : end;
    }
    return named;
}

void orvex_passengers_failed(OrvexPassengers* passengers, GVariant* arguments) {
    guint code = 0;
    const char* message = NULL;
    const char* keys = NULL;
    if (!g_variant_is_of_type(arguments, G_VARIANT_TYPE("(uss)"))) {
        return;
    }
    g_variant_get(arguments, "(u&s&s)", &code, &message, &keys);
    g_autoptr(GHashTable) named = tell_named(passengers, code, message, keys);
    g_autoptr(GList) connections = g_hash_table_get_keys(passengers->table);
    for (GList* each = connections; each != NULL; each = each->next) {
        if (!g_hash_table_contains(named, each->data)) {
            OrvexPassenger* passenger = g_hash_table_lookup(passengers->table, each->data);
            passenger->functions->exchange_failed(passenger, code, message);
        }
    }
}

void orvex_passengers_daemon_gone(OrvexPassengers* passengers) {
    // They may end while they are told, and leave the table.
    g_autoptr(GList) all = g_hash_table_get_values(passengers->table);
    g_list_foreach(all, (GFunc)(void (*)(void))orvex_counted_ref, NULL);
    for (GList* each = all; each != NULL; each = each->next) {
        OrvexPassenger* passenger = each->data;
        passenger->functions->daemon_gone(passenger);
        orvex_counted_unref(passenger);
    }
}

// -- cancels -------------------------------------------------------------------------------------

static void own_user_known(GObject* bus, GAsyncResult* result, gpointer data) {
    OrvexPassengers* passengers = data;
    g_autoptr(GVariant) reply = g_dbus_connection_call_finish(G_DBUS_CONNECTION(bus), result, NULL);
    if (reply != NULL) {
        g_variant_get(reply, "(u)", &passengers->user);
    }
    orvex_counted_unref(passengers);
}

void orvex_passengers_ask_for_own_user(OrvexPassengers* passengers, GDBusConnection* bus) {
    const char* name = g_dbus_connection_get_unique_name(bus);
    if (name != NULL) {
        orvex_ask_for_user(bus, name, own_user_known, orvex_counted_ref(passengers));
    }
}

typedef struct {
    OrvexPassengers* passengers;
    guint connection;
    guint request;
} Cancel;

/// The daemon obeys the user whose request it is, and root; it obeys nobody who has left the bus
/// before it could ask who that was.
static void canceller_known(GObject* bus, GAsyncResult* result, gpointer data) {
    g_autofree Cancel* cancel = data;
    OrvexPassengers* passengers = cancel->passengers;
    guint32 user = NOBODY;
    g_autoptr(GVariant) reply = g_dbus_connection_call_finish(G_DBUS_CONNECTION(bus), result, NULL);
    OrvexPassenger* passenger = find(passengers, cancel->connection);
    if (reply != NULL) {
        g_variant_get(reply, "(u)", &user);
    }
    if (passenger != NULL && user == NOBODY) { // the daemon may be quicker
        passenger->functions->may_be_cancelled(passenger, cancel->request);
    } else if (passenger != NULL && (user == 0 || user == passengers->user)) {
        passenger->functions->cancelled(passenger, cancel->request);
    }
    orvex_counted_unref(passengers);
}

/// The daemon does not tell that somebody has cancelled a request: it just stays silent.
void orvex_passengers_cancel(OrvexPassengers* passengers, GDBusConnection* bus, const char* sender,
                             GVariant* arguments) {
    guint connection = 0;
    guint request = 0;
    if (!g_variant_is_of_type(arguments, G_VARIANT_TYPE("(uu)"))) {
        return;
    }
    g_variant_get(arguments, "(uu)", &connection, &request);
    if (find(passengers, connection) != NULL && sender != NULL) {
        Cancel* cancel = g_new(Cancel, 1);
        *cancel = (Cancel){orvex_counted_ref(passengers), connection, request};
        orvex_ask_for_user(bus, sender, canceller_known, cancel);
    }
}
