#pragma once

#include "orvex-enums.h"

#include <gio/gio.h>

// One client's way to the daemon: the connection to the bus, who owns the daemon's name, the status
// of the network, and which transfer a signal is meant for. What is not marked belongs to the
// worker; see orvex-worker.h.

typedef struct OrvexLink OrvexLink;
typedef struct OrvexTransfer OrvexTransfer;

/// @param changed called in `context` with the name of a property that has changed, and `client`,
/// of which the link holds a weak reference.
OrvexLink* orvex_link_new(GMainContext* context,
                          void (*changed)(gpointer client, const char* property), gpointer client);
OrvexLink* orvex_link_ref(OrvexLink* link); ///< any thread
void orvex_link_unref(OrvexLink* link);     ///< any thread

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

/// Signals about this connection of the daemon go to this transfer.
void orvex_link_add(OrvexLink* link, guint connection, OrvexTransfer* transfer);
void orvex_link_remove(OrvexLink* link, guint connection, OrvexTransfer* transfer);

/// Finds a link for a transfer of this one's client: it is told where to sit, and then to board,
/// perhaps later. One connection to the bus bears only so many transfers at once, and so many calls
/// without an answer.
void orvex_link_find_seat(OrvexLink* home, OrvexTransfer* transfer);
void orvex_link_enter(OrvexLink* link);
/// @param lost calls that will never be answered
void orvex_link_leave(OrvexLink* home, OrvexLink* link, guint lost);

/// A call that nobody waits for. The bus has no limit for these.
void orvex_link_send(OrvexLink* link, const char* owner, const char* member, GVariant* arguments);

/// Around "connect": the end of the process waits for the number that it brings. @return FALSE when
/// the process has begun to end
gboolean orvex_link_begin_connect(OrvexLink* link);
void orvex_link_end_connect(OrvexLink* link);
/// Notes what the end of the process would leave at the daemon. `request` 0: none is known.
void orvex_link_note_open(OrvexLink* link, const OrvexTransfer* transfer, guint connection,
                          guint request, gboolean uploading);
void orvex_link_note_closed(OrvexLink* link, const OrvexTransfer* transfer);
