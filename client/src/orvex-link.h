#pragma once

#include "orvex-enums.h"
#include "orvex-passengers.h"
#include "orvex-remains.h"

#include <gio/gio.h>

// One connection's view of the daemon: whether it is there, the status of the network, and which
// transfers use the connection. What is not marked belongs to the worker; see orvex-worker.h. Its
// lock guards what getters on other threads see.

/// An OrvexCounted. The last reference may be dropped on any thread.
typedef struct OrvexLink OrvexLink;

/// @param changed called in `context` with the name of a property that has changed, and `client`,
/// of which the link holds a weak reference.
OrvexLink* orvex_link_new(GMainContext* context,
                          void (*changed)(gpointer client, const char* property), gpointer client);
/// One more connection to the same bus, of which no client hears.
OrvexLink* orvex_link_new_beside(OrvexLink* other);

/// Any thread. Connects to `bus`, or to the system bus if it is NULL, and looks for the daemon. The
/// task returns a boolean. Once it is open, this does nothing; who asks while it is being opened
/// gets the same answer.
void orvex_link_open(OrvexLink* link, GDBusConnection* bus, GTask* task);

/// Any thread. Asks the daemon, which the bus starts if need be; the task returns an int.
void orvex_link_query_status(OrvexLink* link, GTask* task);

/// Any thread. Waits until the connection fits the policy; the task returns a boolean.
void orvex_link_wait_usable(OrvexLink* link, OrvexPolicy policy, GTask* task);

/// Any thread; NULL before the link is open. It lives as long as the link.
GDBusConnection* orvex_link_get_bus(OrvexLink* link);
OrvexStatus orvex_link_get_status(OrvexLink* link); ///< any thread
gboolean orvex_link_is_running(OrvexLink* link);    ///< any thread

/// The unique name of the daemon, NULL when there is none.
const char* orvex_link_get_owner(OrvexLink* link);

/// Whether its connection to the bus was made here, and not given: only such a one can be made
/// again.
gboolean orvex_link_is_own(OrvexLink* link);
gboolean orvex_link_is_open(OrvexLink* link);
/// Whether the connection to the bus is there and has not ended.
gboolean orvex_link_is_connected(OrvexLink* link);

/// Who is told what the daemon's signals say.
OrvexPassengers* orvex_link_get_passengers(OrvexLink* link);
/// What is noted for the end of the process.
OrvexRemains* orvex_link_get_remains(OrvexLink* link);

/// Transfers are counted that use the link: one connection to the bus bears only so many calls
/// without an answer. @param lost calls that will never be answered
void orvex_link_enter(OrvexLink* link);
void orvex_link_leave(OrvexLink* link, guint lost);
gboolean orvex_link_has_room(OrvexLink* link);
/// Whether no transfer uses it.
gboolean orvex_link_is_idle(OrvexLink* link);
