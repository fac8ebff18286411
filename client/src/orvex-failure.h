#pragma once

#include "orvex-error.h"

#include <gio/gio.h>

// How failures of the daemon, of the bus and of this library become errors of the library. Any
// thread may ask; there is nothing to lock.

/// The daemon's own codes that can reach a client.
enum {
    ORVEX_CODE_UNKNOWN_REQUEST = 41,
    ORVEX_CODE_NOT_ACCEPTING = 57,
    ORVEX_CODE_UNKNOWN_CONNECTION = 1001,
    ORVEX_CODE_EXCHANGE_FAILED = 2001,
    ORVEX_CODE_BAD_ARGUMENTS = 2002,
    ORVEX_CODE_NO_NETWORK = 2204,
    ORVEX_CODE_NOT_PERMITTED = 2205,
};

/// An error with the sentence of its value. `code` is the daemon's number, 0 for none; `detail` is
/// what the daemon or the bus has to say, or NULL.
GError* orvex_failure_new(OrvexError value, guint code, const char* detail);

/// What an errorSignal tells of the requests that it names.
GError* orvex_failure_from_signal(guint code, const char* message);

/// Whether an errorSignal is about requests for which no exchange has begun.
gboolean orvex_failure_is_before_exchange(guint code, const char* message);

/// A code in an error reply, or the result of sendData. `connected`: whether there is a network
/// connection, as far as is known: a refused policy looks like a missing network else.
GError* orvex_failure_from_code(guint code, gboolean connected);

/// A call that failed: an error reply of the daemon or of the bus, or a failure on this side.
/// Takes the error.
GError* orvex_failure_from_call(GError* error, gboolean connected);

/// A cancelled call. Its cancellable may have been reset since, and would name no error then.
GError* orvex_failure_cancelled(void);
/// Whether a call that was begun with a daemon has found none at its end.
gboolean orvex_failure_is_loss(const GError* error);
