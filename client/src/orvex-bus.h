#pragma once

#include "orvex-remains.h"

#include <gio/gio.h>

// One connection to the bus: opens it, hears what the bus and the daemon tell on it, and leaves it.
// It is a part of a link, which owns it, and belongs to the worker, but for what is marked. The end
// of the connection is told on another thread, and reaches the worker by a post; a lock guards
// whether the connection has been left by then.

typedef struct OrvexBus OrvexBus;

/// What the link hears, in which it is kept meanwhile.
typedef struct {
    /// The connection is there, or the error tells why not. Takes the error.
    void (*reached)(gpointer link, GError* error);
    void (*daemon_signal)(gpointer link, const char* sender, const char* name, GVariant* arguments);
    void (*cancel_signal)(gpointer link, const char* sender, GVariant* arguments);
    /// The daemon's name has gone from one to the other; "": nobody
    void (*owner_changed)(gpointer link, const char* before, const char* after);
    void (*closed)(gpointer link);
} OrvexBusFunctions;

/// @param link an OrvexCounted, for which it works
OrvexBus* orvex_bus_new(const OrvexBusFunctions* functions, gpointer link);
/// One more connection to the same bus.
OrvexBus* orvex_bus_new_beside(const OrvexBus* other, const OrvexBusFunctions* functions,
                               gpointer link);
void orvex_bus_free(OrvexBus* bus);

/// Uses the connection `given`, or makes one to the system bus if it is NULL. The link has to live
/// until it was told.
void orvex_bus_open(OrvexBus* bus, GDBusConnection* given, GCancellable* cancellable);
/// It may be opened again.
void orvex_bus_leave(OrvexBus* bus);

/// NULL while there is none. On other threads only once it is open.
GDBusConnection* orvex_bus_get_connection(const OrvexBus* bus);
gboolean orvex_bus_is_connected(const OrvexBus* bus);
/// Whether it was made here, and not given.
gboolean orvex_bus_is_own(const OrvexBus* bus);
/// What is noted about this connection for the end of the process. Any thread.
OrvexRemains* orvex_bus_get_remains(const OrvexBus* bus);
