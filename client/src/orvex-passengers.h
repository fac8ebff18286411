#pragma once

#include "orvex-counted.h"

#include <gio/gio.h>

// Who is meant by a signal: the transfers of one connection to the bus, by the number that the
// daemon gave them. Signals name requests by such numbers; a transfer is told what concerns it, and
// nothing else. Also finds out whose cancels the daemon obeys. All of it belongs to the worker.

typedef struct OrvexPassenger OrvexPassenger;

/// What a transfer is told.
typedef struct {
    void (*data_wanted)(OrvexPassenger* passenger, guint request);
    /// @return whether it is this request that has failed, or may be
    gboolean (*failed)(OrvexPassenger* passenger, guint request, guint code, const char* message);
    /// An exchange has failed, and its failure does not name this request.
    void (*exchange_failed)(OrvexPassenger* passenger, guint code, const char* message);
    /// Somebody who has left the bus has cancelled it: the daemon has obeyed him, or it has not.
    void (*may_be_cancelled)(OrvexPassenger* passenger, guint request);
    void (*cancelled)(OrvexPassenger* passenger, guint request);
    void (*daemon_gone)(OrvexPassenger* passenger);
} OrvexPassengerFunctions;

/// A transfer begins with this.
struct OrvexPassenger {
    OrvexCounted counted;
    const OrvexPassengerFunctions* functions;
};

/// An OrvexCounted: it outlives the link while the bus is asked for somebody's user.
typedef struct OrvexPassengers OrvexPassengers;

OrvexPassengers* orvex_passengers_new(void);

/// Signals about this connection of the daemon go to this one, which removes itself.
void orvex_passengers_add(OrvexPassengers* passengers, guint connection, OrvexPassenger* passenger);
void orvex_passengers_remove(OrvexPassengers* passengers, guint connection,
                             OrvexPassenger* passenger);

/// The arguments of a signal of the daemon; those of a wrong type tell nothing.
void orvex_passengers_data_wanted(OrvexPassengers* passengers, GVariant* arguments);
void orvex_passengers_failed(OrvexPassengers* passengers, GVariant* arguments);
/// Those of the signal "cancel", which everybody can send.
void orvex_passengers_cancel(OrvexPassengers* passengers, GDBusConnection* bus, const char* sender,
                             GVariant* arguments);
void orvex_passengers_daemon_gone(OrvexPassengers* passengers);

/// Asks the bus which user this process is: the daemon obeys his cancels.
void orvex_passengers_ask_for_own_user(OrvexPassengers* passengers, GDBusConnection* bus);
