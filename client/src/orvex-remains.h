#pragma once

#include <gio/gio.h>

// What the end of the process would leave at the daemon. When the process ends by exit() or returns
// from main(), the requests that are left are taken back: a destructor of this library knows what
// is noted here, and tells the daemon. Any thread may take a note. One lock guards the notes of all
// connections to the bus.

/// The notes of one connection to the bus.
typedef struct OrvexRemains OrvexRemains;

OrvexRemains* orvex_remains_new(void);
/// They have left the bus.
void orvex_remains_free(OrvexRemains* remains);

/// From now on the end of the process looks at them, and uses this connection; it belongs to the
/// caller.
void orvex_remains_enter(OrvexRemains* remains, GDBusConnection* bus);
void orvex_remains_leave(OrvexRemains* remains);

/// Around "connect": the end of the process waits for the number that it brings. @return FALSE when
/// the process has begun to end
gboolean orvex_remains_begin_connect(OrvexRemains* remains);
void orvex_remains_end_connect(OrvexRemains* remains);

/// Notes what is open for this transfer, instead of what was noted before.
/// @param request 0: none is known
void orvex_remains_note_open(OrvexRemains* remains, gconstpointer transfer, guint connection,
                             guint request, gboolean uploading);
void orvex_remains_note_closed(OrvexRemains* remains, gconstpointer transfer);
