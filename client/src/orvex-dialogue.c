#include "orvex-dialogue.h"

#include "orvex-calls.h"
#include "orvex-failure.h"
#include "orvex-names.h"

#include <string.h>

enum { CALL_TIMEOUT_MS = 60 * 1000 };

struct OrvexDialogue {
    OrvexPassenger* transfer;
    OrvexSeats* seats; ///< NULL when everything is over
    OrvexLink* link;   ///< likewise, and before it was found
    gboolean is_seated;
    char* daemon; ///< by its unique name: numbers mean nothing to another one
    guint connection;
    guint request;
    guint calls; ///< that are under way
    gboolean is_finished;
};

void orvex_terms_clear(OrvexTerms* terms) {
    g_free(terms->element);
    g_free(terms->type);
    g_free(terms->version);
    g_free(terms->encoding);
    g_free(terms->content_type);
}

// -- life ----------------------------------------------------------------------------------------

OrvexDialogue* orvex_dialogue_new(OrvexSeats* seats, OrvexPassenger* transfer) {
    OrvexDialogue* dialogue = g_new0(OrvexDialogue, 1);
    dialogue->transfer = transfer;
    dialogue->seats = orvex_counted_ref(seats);
    return dialogue;
}

void orvex_dialogue_free(OrvexDialogue* dialogue) {
    g_free(dialogue->daemon);
    g_clear_pointer(&dialogue->link, orvex_counted_unref);
    g_clear_pointer(&dialogue->seats, orvex_counted_unref);
    g_free(dialogue);
}

void orvex_dialogue_finish(OrvexDialogue* dialogue) {
    dialogue->is_finished = TRUE;
}

void orvex_dialogue_let_go(OrvexDialogue* dialogue) {
    if (dialogue->is_finished && dialogue->calls == 0) {
        g_clear_pointer(&dialogue->link, orvex_counted_unref);
        g_clear_pointer(&dialogue->seats, orvex_counted_unref);
    }
}

// -- where it is led -----------------------------------------------------------------------------

gboolean orvex_dialogue_can_begin(const OrvexDialogue* dialogue) {
    return orvex_seats_are_connected(dialogue->seats);
}

void orvex_dialogue_find_seat(OrvexDialogue* dialogue, const OrvexSeatsFunctions* functions) {
    orvex_seats_find(dialogue->seats, functions, dialogue->transfer);
}

void orvex_dialogue_sit(OrvexDialogue* dialogue, OrvexLink* link) {
    OrvexLink* before = dialogue->link;
    dialogue->link = orvex_counted_ref(link);
    orvex_link_enter(link);
    if (dialogue->is_seated) {
        orvex_seats_leave(dialogue->seats, before, 0);
    }
    dialogue->is_seated = TRUE;
    g_clear_pointer(&before, orvex_counted_unref);
}

gboolean orvex_dialogue_is_connected(const OrvexDialogue* dialogue) {
    return orvex_link_is_connected(dialogue->link);
}

void orvex_dialogue_listen(OrvexDialogue* dialogue) {
    orvex_passengers_add(orvex_link_get_passengers(dialogue->link), dialogue->connection,
                         dialogue->transfer);
}

void orvex_dialogue_leave_seat(OrvexDialogue* dialogue, guint lost) {
    if (dialogue->connection != 0) {
        orvex_passengers_remove(orvex_link_get_passengers(dialogue->link), dialogue->connection,
                                dialogue->transfer);
    }
    if (dialogue->is_seated) {
        dialogue->is_seated = FALSE;
        orvex_seats_leave(dialogue->seats, dialogue->link, dialogue->daemon != NULL ? lost : 0);
    }
}

// -- what is known -------------------------------------------------------------------------------

static OrvexRemains* remains_of(const OrvexDialogue* dialogue) {
    return orvex_link_get_remains(dialogue->link);
}

static void note_open(OrvexDialogue* dialogue, gboolean is_uploading) {
    orvex_remains_note_open(remains_of(dialogue), dialogue->transfer, dialogue->connection,
                            dialogue->request, is_uploading);
}

gboolean orvex_dialogue_has_daemon(const OrvexDialogue* dialogue) {
    return dialogue->daemon != NULL;
}

void orvex_dialogue_forget_daemon(OrvexDialogue* dialogue) {
    g_clear_pointer(&dialogue->daemon, g_free);
    orvex_remains_note_closed(remains_of(dialogue), dialogue->transfer);
}

guint orvex_dialogue_get_connection(const OrvexDialogue* dialogue) {
    return dialogue->connection;
}

guint orvex_dialogue_get_request(const OrvexDialogue* dialogue) {
    return dialogue->request;
}

void orvex_dialogue_note_upload(OrvexDialogue* dialogue, gboolean is_running) {
    note_open(dialogue, is_running);
}

// -- calls ---------------------------------------------------------------------------------------

/// What a call means for the dialogue itself.
typedef void (*Effect)(OrvexDialogue* dialogue, GVariant* reply, const GError* error);

typedef struct {
    OrvexDialogue* dialogue;
    Effect effect; ///< or NULL
    OrvexAnswered answered;
    gpointer data;
} Call;

static void call_answered(GObject* bus, GAsyncResult* result, gpointer data) {
    g_autofree Call* call = data;
    OrvexDialogue* dialogue = call->dialogue;
    GError* failure = NULL;
    g_autoptr(GVariant) reply =
        g_dbus_connection_call_finish(G_DBUS_CONNECTION(bus), result, &failure);
    g_autoptr(GError) error = NULL;
    if (reply == NULL) {
        const OrvexStatus status = orvex_link_get_status(dialogue->link);
        error = orvex_failure_from_call(failure, (status & ORVEX_STATUS_CONNECTED) != 0);
    }
    --dialogue->calls;
    if (call->effect != NULL) {
        call->effect(dialogue, reply, error);
    }
    call->answered(call->data, reply, error);
    orvex_dialogue_let_go(dialogue);
    orvex_counted_unref(dialogue->transfer);
}

static Call* call_new(OrvexDialogue* dialogue, Effect effect, OrvexAnswered answered,
                      gpointer data) {
    Call* call = g_new(Call, 1);
    *call = (Call){dialogue, effect, answered, data};
    orvex_counted_ref(dialogue->transfer);
    ++dialogue->calls;
    return call;
}

static void start_call(Call* call, const char* interface, const char* member, GVariant* arguments,
                       const char* reply, int timeout, GCancellable* cancellable) {
    const OrvexDialogue* dialogue = call->dialogue;
    // Only the first call starts a daemon. From then on it is this one or none.
    const gboolean is_known = dialogue->daemon != NULL;
    g_dbus_connection_call(orvex_link_get_bus(dialogue->link),
                           is_known ? dialogue->daemon : ORVEX_BUS_NAME, ORVEX_PATH, interface,
                           member, arguments, G_VARIANT_TYPE(reply),
                           is_known ? G_DBUS_CALL_FLAGS_NO_AUTO_START : G_DBUS_CALL_FLAGS_NONE,
                           timeout, cancellable, call_answered, call);
}

static void connected(OrvexDialogue* dialogue, GVariant* reply, const GError* error) {
    (void)error;
    if (reply != NULL) {
        g_variant_get(reply, "(u)", &dialogue->connection);
        dialogue->daemon = g_strdup(orvex_link_get_owner(dialogue->link));
        note_open(dialogue, FALSE);
    }
    orvex_remains_end_connect(remains_of(dialogue));
}

/// Exactly the bytes of a text, without a zero byte behind them.
static GVariant* text_bytes(const char* text) {
    return g_variant_new_fixed_array(G_VARIANT_TYPE_BYTE, text, strlen(text), 1);
}

gboolean orvex_dialogue_connect(OrvexDialogue* dialogue, const OrvexTerms* terms,
                                OrvexAnswered answered, gpointer data) {
    if (!orvex_remains_begin_connect(remains_of(dialogue))) {
        return FALSE;
    }
    start_call(call_new(dialogue, connected, answered, data), ORVEX_INTERFACE, "connect",
               g_variant_new("(@ay@ay@ay@ay@ayu)", text_bytes(terms->element),
                             text_bytes(terms->type), text_bytes(terms->version),
                             text_bytes(terms->encoding), text_bytes(terms->content_type),
                             terms->chunk_size),
               "(u)", CALL_TIMEOUT_MS, NULL);
    return TRUE;
}

static void prepared(OrvexDialogue* dialogue, GVariant* reply, const GError* error) {
    (void)error;
    if (reply != NULL) {
        g_variant_get(reply, "(u)", &dialogue->request);
        note_open(dialogue, FALSE);
    }
}

void orvex_dialogue_prepare(OrvexDialogue* dialogue, const OrvexTerms* terms,
                            OrvexAnswered answered, gpointer data) {
    start_call(
        call_new(dialogue, prepared, answered, data), ORVEX_INTERFACE,
        terms->attach ? "attach" : "prepare",
        g_variant_new("(uuu)", dialogue->connection, (guint)terms->policy, terms->open_duration),
        "(u)", CALL_TIMEOUT_MS, NULL);
}

static void send_data(OrvexDialogue* dialogue, GVariant* bytes, gboolean is_last,
                      OrvexAnswered answered, gpointer data) {
    start_call(call_new(dialogue, NULL, answered, data), ORVEX_INTERFACE, "sendData",
               g_variant_new("(@aybuu)", bytes, is_last, dialogue->connection, dialogue->request),
               "(i)", CALL_TIMEOUT_MS, NULL);
}

void orvex_dialogue_send_piece(OrvexDialogue* dialogue, GBytes* piece, gboolean is_last,
                               OrvexAnswered answered, gpointer data) {
    send_data(dialogue, g_variant_new_from_bytes(G_VARIANT_TYPE_BYTESTRING, piece, TRUE), is_last,
              answered, data);
}

void orvex_dialogue_probe(OrvexDialogue* dialogue, gboolean has_ended, OrvexAnswered answered,
                          gpointer data) {
    send_data(dialogue, g_variant_new_fixed_array(G_VARIANT_TYPE_BYTE, "", 0, 1), has_ended,
              answered, data);
}

void orvex_dialogue_fetch(OrvexDialogue* dialogue, GCancellable* cancellable,
                          OrvexAnswered answered, gpointer data) {
    start_call(call_new(dialogue, NULL, answered, data), ORVEX_INTERFACE, "getData",
               g_variant_new("(uu)", dialogue->connection, dialogue->request), "(ayu)", G_MAXINT,
               cancellable);
}

static void disconnected(OrvexDialogue* dialogue, GVariant* reply, const GError* error) {
    (void)reply;
    if (g_error_matches(error, ORVEX_ERROR, ORVEX_ERROR_LIMITS) && dialogue->daemon != NULL) {
        orvex_send(orvex_link_get_bus(dialogue->link), dialogue->daemon, "disconnect",
                   g_variant_new("(u)", dialogue->connection));
    }
    // Another daemon that cannot be told has forgotten it.
    orvex_remains_note_closed(remains_of(dialogue), dialogue->transfer);
}

void orvex_dialogue_disconnect(OrvexDialogue* dialogue, OrvexAnswered answered, gpointer data) {
    start_call(call_new(dialogue, disconnected, answered, data), ORVEX_INTERFACE, "disconnect",
               g_variant_new("(u)", dialogue->connection), "()", ORVEX_LAST_CALL_MS, NULL);
}

void orvex_dialogue_ping(OrvexDialogue* dialogue, OrvexAnswered answered, gpointer data) {
    start_call(call_new(dialogue, NULL, answered, data), "org.freedesktop.DBus.Peer", "Ping", NULL,
               "()", ORVEX_LAST_CALL_MS, NULL);
}

// -- what is said without an answer --------------------------------------------------------------

void orvex_dialogue_cancel(OrvexDialogue* dialogue) {
    // Broadcast, as the daemon's own signals are: monitors see who cancelled what.
    (void)g_dbus_connection_emit_signal(
        orvex_link_get_bus(dialogue->link), NULL, ORVEX_PATH, ORVEX_INTERFACE, "cancel",
        g_variant_new("(uu)", dialogue->connection, dialogue->request), NULL);
}

void orvex_dialogue_end_question(OrvexDialogue* dialogue) {
    orvex_send_end_of_question(orvex_link_get_bus(dialogue->link), dialogue->daemon,
                               dialogue->connection, dialogue->request);
}
