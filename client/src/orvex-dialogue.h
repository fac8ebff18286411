#pragma once

#include "orvex-enums.h"
#include "orvex-seats.h"

#include <gio/gio.h>

// What one transfer says to the daemon, and the numbers under which the daemon knows it. Also notes
// what the end of the process would leave. It belongs to the worker, and is a part of a transfer,
// which it keeps while a call is under way.

/// The daemon answers at once unless it hangs; this is how long a call is waited for behind which
/// nothing more is wanted.
enum { ORVEX_LAST_CALL_MS = 2000 };

/// What the daemon is told of a request at its beginning.
typedef struct {
    char* element;
    char* type;
    char* version;
    char* encoding;
    char* content_type;
    guint chunk_size;
    OrvexPolicy policy;
    guint open_duration;
    gboolean attach;
} OrvexTerms;

void orvex_terms_clear(OrvexTerms* terms);

typedef struct OrvexDialogue OrvexDialogue;

/// A call has come back, with the reply or an error of this library. Neither is given away.
typedef void (*OrvexAnswered)(gpointer data, GVariant* reply, GError* error);

/// Nothing is said before a link was found.
OrvexDialogue* orvex_dialogue_new(OrvexSeats* seats, OrvexPassenger* transfer);
void orvex_dialogue_free(OrvexDialogue* dialogue);

// -- where it is led -----------------------------------------------------------------------------

/// Whether the client is connected to the bus. Before a link was found.
gboolean orvex_dialogue_can_begin(const OrvexDialogue* dialogue);
/// Looks for a link; see orvex_seats_find().
void orvex_dialogue_find_seat(OrvexDialogue* dialogue, const OrvexSeatsFunctions* functions);
/// From now on it is led on this link.
void orvex_dialogue_sit(OrvexDialogue* dialogue, OrvexLink* link);
/// Whether the link's connection to the bus has not ended.
gboolean orvex_dialogue_is_connected(const OrvexDialogue* dialogue);
/// Signals of the daemon go to the transfer.
void orvex_dialogue_listen(OrvexDialogue* dialogue);
/// They go there no more, and the seat is free for others. @param lost calls that the daemon will
/// never answer
void orvex_dialogue_leave_seat(OrvexDialogue* dialogue, guint lost);

/// Nothing more is said when the last call has come back.
void orvex_dialogue_finish(OrvexDialogue* dialogue);
/// Leaves the link, if nothing more is said: a request that its user keeps must not keep a
/// connection to the bus.
void orvex_dialogue_let_go(OrvexDialogue* dialogue);

// -- what is known -------------------------------------------------------------------------------

/// Whether there is a daemon that knows the transfer's connection.
gboolean orvex_dialogue_has_daemon(const OrvexDialogue* dialogue);
/// It has gone, and nobody is left to be told anything.
void orvex_dialogue_forget_daemon(OrvexDialogue* dialogue);
guint orvex_dialogue_get_connection(const OrvexDialogue* dialogue); ///< 0: not known yet
guint orvex_dialogue_get_request(const OrvexDialogue* dialogue);    ///< likewise
/// Whether the daemon waits for the rest of the question.
void orvex_dialogue_note_upload(OrvexDialogue* dialogue, gboolean is_running);

// -- what is said: the answer comes with `data` --------------------------------------------------

/// Starts the daemon, if it is not there and the bus can. @return FALSE when the process has begun
/// to end
gboolean orvex_dialogue_connect(OrvexDialogue* dialogue, const OrvexTerms* terms,
                                OrvexAnswered answered, gpointer data);
void orvex_dialogue_prepare(OrvexDialogue* dialogue, const OrvexTerms* terms,
                            OrvexAnswered answered, gpointer data);
void orvex_dialogue_send_piece(OrvexDialogue* dialogue, GBytes* piece, gboolean is_last,
                               OrvexAnswered answered, gpointer data);
/// An empty piece, which changes nothing as long as it does not take the question's end back.
void orvex_dialogue_probe(OrvexDialogue* dialogue, gboolean has_ended, OrvexAnswered answered,
                          gpointer data);
/// The daemon holds the call until it has something: so without a time-out. A second one would
/// replace it.
void orvex_dialogue_fetch(OrvexDialogue* dialogue, GCancellable* cancellable,
                          OrvexAnswered answered, gpointer data);
/// A call that does nothing.
void orvex_dialogue_ping(OrvexDialogue* dialogue, OrvexAnswered answered, gpointer data);
void orvex_dialogue_disconnect(OrvexDialogue* dialogue, OrvexAnswered answered, gpointer data);

// -- what is said without an answer --------------------------------------------------------------

void orvex_dialogue_cancel(OrvexDialogue* dialogue);
void orvex_dialogue_end_question(OrvexDialogue* dialogue);
