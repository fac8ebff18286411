#include "orvex-enums.h"

#include "orvex-error.h"

#define VALUE(name, nick)                                                                          \
    { name, #name, nick }

#define END                                                                                        \
    { 0, NULL, NULL }

/// Registers a type with the name of its C type, once.
static GType register_once(gsize* type, GType made) {
    g_once_init_leave(type, made);
    return made;
}

GType orvex_policy_get_type(void) {
    static gsize type = 0;
    static const GEnumValue values[] = {VALUE(ORVEX_POLICY_KIND_ONE, "kind-one"),
                                        VALUE(ORVEX_POLICY_NOT_FLAGGED, "not-flagged"),
                                        VALUE(ORVEX_POLICY_ANY, "any"), END};
    return g_once_init_enter(&type)
               ? register_once(&type, g_enum_register_static("OrvexPolicy", values))
               : type;
}

GType orvex_status_get_type(void) {
    static gsize type = 0;
    static const GFlagsValue values[] = {
        VALUE(ORVEX_STATUS_NONE, "none"), VALUE(ORVEX_STATUS_CONNECTED, "connected"),
        VALUE(ORVEX_STATUS_KIND_ONE, "kind-one"), VALUE(ORVEX_STATUS_FLAGGED, "flagged"), END};
    return g_once_init_enter(&type)
               ? register_once(&type, g_flags_register_static("OrvexStatus", values))
               : type;
}

GType orvex_request_state_get_type(void) {
    static gsize type = 0;
    static const GEnumValue values[] = {VALUE(ORVEX_REQUEST_STATE_IDLE, "idle"),
                                        VALUE(ORVEX_REQUEST_STATE_CONNECTING, "connecting"),
                                        VALUE(ORVEX_REQUEST_STATE_WAITING, "waiting"),
                                        VALUE(ORVEX_REQUEST_STATE_SENDING, "sending"),
                                        VALUE(ORVEX_REQUEST_STATE_SENT, "sent"),
                                        VALUE(ORVEX_REQUEST_STATE_RECEIVING, "receiving"),
                                        VALUE(ORVEX_REQUEST_STATE_ANSWERED, "answered"),
                                        VALUE(ORVEX_REQUEST_STATE_FAILED, "failed"),
                                        END};
    return g_once_init_enter(&type)
               ? register_once(&type, g_enum_register_static("OrvexRequestState", values))
               : type;
}

GType orvex_error_get_type(void) {
    static gsize type = 0;
    static const GEnumValue values[] = {VALUE(ORVEX_ERROR_FAILED, "failed"),
                                        VALUE(ORVEX_ERROR_NO_BUS, "no-bus"),
                                        VALUE(ORVEX_ERROR_NOT_INSTALLED, "not-installed"),
                                        VALUE(ORVEX_ERROR_START_FAILED, "start-failed"),
                                        VALUE(ORVEX_ERROR_ACCESS_DENIED, "access-denied"),
                                        VALUE(ORVEX_ERROR_DAEMON_GONE, "daemon-gone"),
                                        VALUE(ORVEX_ERROR_NO_NETWORK, "no-network"),
                                        VALUE(ORVEX_ERROR_NOT_ALLOWED, "not-allowed"),
                                        VALUE(ORVEX_ERROR_NOT_REACHED, "not-reached"),
                                        VALUE(ORVEX_ERROR_NOT_PERMITTED, "not-permitted"),
                                        VALUE(ORVEX_ERROR_SERVER, "server"),
                                        VALUE(ORVEX_ERROR_TRUNCATED, "truncated"),
                                        VALUE(ORVEX_ERROR_TOO_SLOW, "too-slow"),
                                        VALUE(ORVEX_ERROR_TOO_LONG, "too-long"),
                                        VALUE(ORVEX_ERROR_DROPPED, "dropped"),
                                        VALUE(ORVEX_ERROR_CANCELLED, "cancelled"),
                                        VALUE(ORVEX_ERROR_TIMED_OUT, "timed-out"),
                                        VALUE(ORVEX_ERROR_LIMITS, "limits"),
                                        VALUE(ORVEX_ERROR_PROTOCOL, "protocol"),
                                        END};
    return g_once_init_enter(&type)
               ? register_once(&type, g_enum_register_static("OrvexError", values))
               : type;
}
