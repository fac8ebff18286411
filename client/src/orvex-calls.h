#pragma once

#include <gio/gio.h>

// What several modules say to the daemon or to the bus. Nothing is kept here, and any thread
// may call.

/// The daemon answers at once unless it hangs, and so does the bus.
enum { ORVEX_ANSWERED_AT_ONCE_MS = 25 * 1000 };

/// Whether there is a connection to the bus, and it has not ended. @param bus may be NULL
gboolean orvex_is_connected(GDBusConnection* bus);

/// A call that nobody waits for. The bus has no limit for these. @param daemon its name
void orvex_send(GDBusConnection* bus, const char* daemon, const char* member, GVariant* arguments);

/// The same: an empty last piece. The daemon would wait for the rest of the question, and
/// everybody's requests with it.
void orvex_send_end_of_question(GDBusConnection* bus, const char* daemon, guint connection,
                                guint request);

/// Asks the bus for the user behind a name; the reply is "(u)".
void orvex_ask_for_user(GDBusConnection* bus, const char* name, GAsyncReadyCallback callback,
                        gpointer data);

/// Asks the bus for the unique name of the daemon; the reply is "(s)".
void orvex_ask_for_daemon(GDBusConnection* bus, GCancellable* cancellable,
                          GAsyncReadyCallback callback, gpointer data);

/// Asks the daemon for the status of the network; the reply is "(v)". @param name its unique name,
/// or the one that it owns: by that one it is started if it is not there
void orvex_ask_for_status(GDBusConnection* bus, const char* name, int timeout,
                          GCancellable* cancellable, GAsyncReadyCallback callback, gpointer data);
