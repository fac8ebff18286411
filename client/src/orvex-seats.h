#pragma once

#include "orvex-link.h"

#include <glib.h>

// The links of one client: its own one, and spare ones for transfers for which that has no room.
// They belong to the worker; only the last reference may be dropped on any thread.

/// An OrvexCounted, which a client and its transfers share.
typedef struct OrvexSeats OrvexSeats;

/// What a transfer is told that looks for a seat. Both come at once, or the second one later.
typedef struct {
    /// This is the link to use. It may not be open yet, and another one may follow.
    void (*sit)(gpointer transfer, OrvexLink* link);
    /// Its link is open.
    void (*board)(gpointer transfer);
} OrvexSeatsFunctions;

/// @param home the client's own link
OrvexSeats* orvex_seats_new(OrvexLink* home);

/// Whether the client's own link is connected to the bus.
gboolean orvex_seats_are_connected(OrvexSeats* seats);

/// Finds a link for a transfer, an OrvexCounted. The client's own link is open.
void orvex_seats_find(OrvexSeats* seats, const OrvexSeatsFunctions* functions, gpointer transfer);
/// A transfer of this client does not use the link any more. @param lost calls that will never be
/// answered
void orvex_seats_leave(OrvexSeats* seats, OrvexLink* link, guint lost);
