#include "orvex-failure.h"

#include "orvex-error-private.h"

#include <stdlib.h>
#include <string.h>

static const char* const sentences[] = {
    [ORVEX_ERROR_FAILED] = "The request failed",
    [ORVEX_ERROR_NO_BUS] = "The system bus cannot be reached",
    [ORVEX_ERROR_NOT_INSTALLED] =
        "The positioning gateway is not there, and the bus cannot start it",
    [ORVEX_ERROR_START_FAILED] = "The bus could not start the positioning gateway",
    [ORVEX_ERROR_ACCESS_DENIED] = "This user may not talk to the positioning gateway",
    [ORVEX_ERROR_DAEMON_GONE] = "The positioning gateway went away in the middle of its work",
    [ORVEX_ERROR_NO_NETWORK] = "There is no network connection",
    [ORVEX_ERROR_NOT_ALLOWED] = "The request may not use the network connection that there is",
    [ORVEX_ERROR_NOT_REACHED] =
        "The positioning server could not be reached, or the transfer broke off",
    [ORVEX_ERROR_NOT_PERMITTED] = "The device's settings do not permit positioning",
    [ORVEX_ERROR_SERVER] = "The positioning server did not give a usable answer",
    [ORVEX_ERROR_TRUNCATED] = "The transfer broke off within the answer",
    [ORVEX_ERROR_TOO_SLOW] = "The question came too slowly, and was closed without its end",
    [ORVEX_ERROR_TOO_LONG] = "The answer is longer than it may be",
    [ORVEX_ERROR_DROPPED] = "The positioning gateway does not know the request any more",
    [ORVEX_ERROR_CANCELLED] = "Another client has cancelled the request",
    [ORVEX_ERROR_TIMED_OUT] = "Nothing went on for too long",
    [ORVEX_ERROR_LIMITS] = "There are too many connections, requests or calls",
    [ORVEX_ERROR_PROTOCOL] = "The positioning gateway does not speak the language of this library",
};

GError* orvex_failure_new(OrvexError value, guint code, const char* detail) {
    GError* error = g_error_new_literal(ORVEX_ERROR, (int)value, sentences[value]);
    orvex_error_set_cause(error, code, detail);
    return error;
}

// These two are the daemon's own words, which nothing else has.
static const char* const no_network = "Connection error";
static const char* const not_allowed = "Current network connection not allowed";

gboolean orvex_failure_is_before_exchange(guint code, const char* message) {
    return code == ORVEX_CODE_NO_NETWORK &&
           (strcmp(message, no_network) == 0 || strcmp(message, not_allowed) == 0);
}

GError* orvex_failure_from_signal(guint code, const char* message) {
    if (code != ORVEX_CODE_NO_NETWORK) {
        return orvex_failure_new(ORVEX_ERROR_SERVER, code, message);
    }
    if (strcmp(message, no_network) == 0) {
        return orvex_failure_new(ORVEX_ERROR_NO_NETWORK, code, message);
    }
    if (strcmp(message, not_allowed) == 0) {
        return orvex_failure_new(ORVEX_ERROR_NOT_ALLOWED, code, message);
    }
    return orvex_failure_new(ORVEX_ERROR_NOT_REACHED, code, message);
}

static OrvexError value_of_code(guint code, gboolean connected) {
    switch (code) {
    case ORVEX_CODE_UNKNOWN_REQUEST:
    case ORVEX_CODE_UNKNOWN_CONNECTION:
        return ORVEX_ERROR_DROPPED;
    case ORVEX_CODE_NOT_ACCEPTING:
        return ORVEX_ERROR_TOO_SLOW;
    case ORVEX_CODE_EXCHANGE_FAILED:
        return ORVEX_ERROR_SERVER;
    case ORVEX_CODE_BAD_ARGUMENTS:
        return ORVEX_ERROR_PROTOCOL;
    case ORVEX_CODE_NO_NETWORK:
        return connected ? ORVEX_ERROR_NOT_ALLOWED : ORVEX_ERROR_NO_NETWORK;
    case ORVEX_CODE_NOT_PERMITTED:
        return ORVEX_ERROR_NOT_PERMITTED;
    default:
        return ORVEX_ERROR_FAILED;
    }
}

GError* orvex_failure_from_code(guint code, gboolean connected) {
    return orvex_failure_new(value_of_code(code, connected), code, NULL);
}

/// The number in "(41) unspecifiedError", at the front of what the daemon's error replies say.
static gboolean read_code(const char* text, guint* code) {
    char* end = NULL;
    if (*text != '(') {
        return FALSE;
    }
    *code = (guint)strtoul(text + 1, &end, 10);
    return end > text + 1 && *end == ')';
}

/// Whether the bus or the service manager tried to start the daemon in vain.
static gboolean is_failed_start(const GError* error, const char* name) {
    if (name != NULL && g_str_has_prefix(name, "org.freedesktop.systemd1.")) {
        return TRUE;
    }
    if (name != NULL && g_str_has_prefix(name, "org.freedesktop.DBus.Error.Spawn.")) {
        return TRUE;
    }
    // The bus says so only when a service does not come up.
    return g_error_matches(error, G_DBUS_ERROR, G_DBUS_ERROR_TIMED_OUT);
}

static OrvexError value_of_bus_error(const GError* error) {
    switch (error->code) {
    case G_DBUS_ERROR_SERVICE_UNKNOWN:
    case G_DBUS_ERROR_NAME_HAS_NO_OWNER:
        return ORVEX_ERROR_NOT_INSTALLED;
    case G_DBUS_ERROR_NO_REPLY: // the bus says so when the callee leaves it
    case G_DBUS_ERROR_DISCONNECTED:
        return ORVEX_ERROR_DAEMON_GONE;
    case G_DBUS_ERROR_ACCESS_DENIED:
    case G_DBUS_ERROR_AUTH_FAILED:
        return ORVEX_ERROR_ACCESS_DENIED;
    case G_DBUS_ERROR_LIMITS_EXCEEDED:
        return ORVEX_ERROR_LIMITS;
    case G_DBUS_ERROR_TIMEOUT:
        return ORVEX_ERROR_TIMED_OUT;
    default:
        return ORVEX_ERROR_PROTOCOL;
    }
}

static OrvexError value_of_call_error(const GError* error, const char* name) {
    if (is_failed_start(error, name)) {
        return ORVEX_ERROR_START_FAILED;
    }
    if (error->domain == G_DBUS_ERROR) {
        return value_of_bus_error(error);
    }
    if (g_error_matches(error, G_IO_ERROR, G_IO_ERROR_TIMED_OUT)) {
        return ORVEX_ERROR_TIMED_OUT;
    }
    if (g_error_matches(error, G_IO_ERROR, G_IO_ERROR_CLOSED)) {
        return ORVEX_ERROR_NO_BUS;
    }
    return ORVEX_ERROR_PROTOCOL;
}

GError* orvex_failure_from_call(GError* error, gboolean connected) {
    g_autoptr(GError) taken = error;
    if (g_error_matches(taken, G_IO_ERROR, G_IO_ERROR_CANCELLED)) {
        return g_steal_pointer(&taken);
    }
    g_autofree char* name = g_dbus_error_get_remote_error(taken);
    g_dbus_error_strip_remote_error(taken);
    guint code = 0;
    if (g_strcmp0(name, "com.kelvra.orvexd.Error") == 0 && read_code(taken->message, &code)) {
        return orvex_failure_from_code(code, connected);
    }
    return orvex_failure_new(value_of_call_error(taken, name), 0, taken->message);
}

GError* orvex_failure_cancelled(void) {
    return g_error_new_literal(G_IO_ERROR, G_IO_ERROR_CANCELLED, "The operation was cancelled");
}

gboolean orvex_failure_is_loss(const GError* error) {
    return g_error_matches(error, ORVEX_ERROR, ORVEX_ERROR_NOT_INSTALLED) ||
           g_error_matches(error, ORVEX_ERROR, ORVEX_ERROR_DAEMON_GONE) ||
           g_error_matches(error, ORVEX_ERROR, ORVEX_ERROR_NO_BUS);
}
