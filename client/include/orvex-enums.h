#pragma once

#include <glib-object.h>

G_BEGIN_DECLS

/**
 * OrvexPolicy:
 * @ORVEX_POLICY_KIND_ONE: only a connection of kind 1.
 * @ORVEX_POLICY_NOT_FLAGGED: any connection that is not restricted; the usual choice.
 * @ORVEX_POLICY_ANY: every connection.
 *
 * The network connections that a request may use.
 */
typedef enum {
    ORVEX_POLICY_KIND_ONE = 0,
    ORVEX_POLICY_NOT_FLAGGED = 2,
    ORVEX_POLICY_ANY = 3,
} OrvexPolicy;

/**
 * OrvexStatus:
 * @ORVEX_STATUS_NONE: there is no connection, or nothing is known about it.
 * @ORVEX_STATUS_CONNECTED: there is an active connection.
 * @ORVEX_STATUS_KIND_ONE: it is of kind 1.
 * @ORVEX_STATUS_FLAGGED: it is restricted.
 *
 * The state of the device's network connection, as the daemon sees it.
 */
typedef enum /*< flags >*/ {
    ORVEX_STATUS_NONE = 0,
    ORVEX_STATUS_CONNECTED = 1 << 0,
    ORVEX_STATUS_KIND_ONE = 1 << 1,
    ORVEX_STATUS_FLAGGED = 1 << 2,
} OrvexStatus;

/**
 * OrvexRequestState:
 * @ORVEX_REQUEST_STATE_IDLE: it was not sent yet.
 * @ORVEX_REQUEST_STATE_CONNECTING: the daemon is being asked to accept it.
 * @ORVEX_REQUEST_STATE_WAITING: it waits for its turn.
 * @ORVEX_REQUEST_STATE_SENDING: the question is on its way.
 * @ORVEX_REQUEST_STATE_SENT: the daemon has the whole question.
 * @ORVEX_REQUEST_STATE_RECEIVING: the answer comes.
 * @ORVEX_REQUEST_STATE_ANSWERED: the whole answer has come.
 * @ORVEX_REQUEST_STATE_FAILED: it has failed, or somebody gave it up.
 *
 * How far a request is. A request that is answered or has failed may be sent again.
 */
typedef enum {
    ORVEX_REQUEST_STATE_IDLE,
    ORVEX_REQUEST_STATE_CONNECTING,
    ORVEX_REQUEST_STATE_WAITING,
    ORVEX_REQUEST_STATE_SENDING,
    ORVEX_REQUEST_STATE_SENT,
    ORVEX_REQUEST_STATE_RECEIVING,
    ORVEX_REQUEST_STATE_ANSWERED,
    ORVEX_REQUEST_STATE_FAILED,
} OrvexRequestState;

#define ORVEX_TYPE_POLICY (orvex_policy_get_type())
#define ORVEX_TYPE_STATUS (orvex_status_get_type())
#define ORVEX_TYPE_REQUEST_STATE (orvex_request_state_get_type())

GType orvex_policy_get_type(void) G_GNUC_CONST;
GType orvex_status_get_type(void) G_GNUC_CONST;
GType orvex_request_state_get_type(void) G_GNUC_CONST;

G_END_DECLS
