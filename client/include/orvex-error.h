#pragma once

#include <glib-object.h>

G_BEGIN_DECLS

/**
 * OrvexError:
 * @ORVEX_ERROR_FAILED: a failure that has no value of its own; [func@Error.get_code] may tell more.
 * @ORVEX_ERROR_NO_BUS: the system bus cannot be reached. Nothing of this library works without it.
 * @ORVEX_ERROR_NOT_INSTALLED: there is no daemon, and the bus cannot start one.
 * @ORVEX_ERROR_START_FAILED: the bus could not start the daemon: tell the administrator.
 * @ORVEX_ERROR_ACCESS_DENIED: this user may not talk to the daemon: join group `positioning`.
 * @ORVEX_ERROR_DAEMON_GONE: the daemon or the bus went away while it was needed: send the request
 *   again.
 * @ORVEX_ERROR_NO_NETWORK: there is no network connection: wait for one.
 * @ORVEX_ERROR_NOT_ALLOWED: the policy of the request forbids the network connection that there
 *   is: wait for another one, or ask the user for a wider policy.
 * @ORVEX_ERROR_NOT_REACHED: the server could not be reached, the transfer broke off, or the
 *   exchange took too long: try again, each time after a longer pause.
 * @ORVEX_ERROR_NOT_PERMITTED: the device's settings do not permit positioning: tell the user.
 * @ORVEX_ERROR_SERVER: the server was reached, but its answer is of no use.
 * @ORVEX_ERROR_TRUNCATED: the transfer broke off within the answer; what was read is its beginning.
 * @ORVEX_ERROR_TOO_SLOW: the question came too slowly, and the daemon closed it without its end.
 * @ORVEX_ERROR_TOO_LONG: the answer is longer than [property@Request:answer-limit].
 * @ORVEX_ERROR_DROPPED: the daemon does not know the request any more, and did not say why.
 * @ORVEX_ERROR_CANCELLED: another client has cancelled the request. One's own #GCancellable leads
 * to %G_IO_ERROR_CANCELLED instead.
 * @ORVEX_ERROR_TIMED_OUT: nothing went on for as long as [property@Request:timeout] says.
 * @ORVEX_ERROR_LIMITS: there are as many connections, requests or calls as the daemon or the bus
 *   allows; [func@Error.get_detail] has their words. End some, or make a client anew.
 * @ORVEX_ERROR_PROTOCOL: the daemon does not speak the language of this library.
 *
 * Each value is something that a program can act on.
 */
typedef enum {
    ORVEX_ERROR_FAILED,
    ORVEX_ERROR_NO_BUS,
    ORVEX_ERROR_NOT_INSTALLED,
    ORVEX_ERROR_START_FAILED,
    ORVEX_ERROR_ACCESS_DENIED,
    ORVEX_ERROR_DAEMON_GONE,
    ORVEX_ERROR_NO_NETWORK,
    ORVEX_ERROR_NOT_ALLOWED,
    ORVEX_ERROR_NOT_REACHED,
    ORVEX_ERROR_NOT_PERMITTED,
    ORVEX_ERROR_SERVER,
    ORVEX_ERROR_TRUNCATED,
    ORVEX_ERROR_TOO_SLOW,
    ORVEX_ERROR_TOO_LONG,
    ORVEX_ERROR_DROPPED,
    ORVEX_ERROR_CANCELLED,
    ORVEX_ERROR_TIMED_OUT,
    ORVEX_ERROR_LIMITS,
    ORVEX_ERROR_PROTOCOL,
} OrvexError;

#define ORVEX_ERROR (orvex_error_quark())
#define ORVEX_TYPE_ERROR (orvex_error_get_type())

GQuark orvex_error_quark(void);
GType orvex_error_get_type(void) G_GNUC_CONST;

guint orvex_error_get_code(const GError* error);
const char* orvex_error_get_detail(const GError* error);

G_END_DECLS
