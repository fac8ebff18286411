#pragma once

#include "orvex-enums.h"

#include <gio/gio.h>

// How far a transfer is: its state, how many bytes have moved, its key, how it ended. The worker
// writes, any thread reads; the lock guards what is read. Whoever listens is told in a main context
// of his own. It is a part of a transfer.

typedef struct OrvexProgress OrvexProgress;

/// Who is told. The worker holds no reference to him, not for a moment: it would have to free him
/// if his user dropped the last one meanwhile.
typedef struct {
    GObject* object;
    /// The transfer with this number has come to this state, or has moved bytes.
    void (*state)(GObject* object, guint64 run, OrvexRequestState state);
    void (*moved)(GObject* object, guint64 run);
    GMainContext* context; ///< in which he is told
} OrvexListener;

typedef struct {
    OrvexRequestState state;
    gboolean is_over;
    guint64 sent;
    guint64 received;
    guint connection; ///< 0: not known yet
    guint request;
    guint error_code;
    char* error_detail; ///< the caller's
} OrvexFacts;

/// Takes the listener's context.
OrvexProgress* orvex_progress_new(const OrvexListener* listener);
void orvex_progress_free(OrvexProgress* progress);

// -- any thread ----------------------------------------------------------------------------------

/// A number that no other transfer of the process has.
guint64 orvex_progress_get_run(const OrvexProgress* progress);
void orvex_progress_get_facts(OrvexProgress* progress, OrvexFacts* facts);
/// Tells how much has moved; the next move is told to the listener again.
void orvex_progress_take_moves(OrvexProgress* progress, guint64* sent, guint64* received);

// -- the worker ----------------------------------------------------------------------------------

/// Tells the listener that it begins. Any thread.
void orvex_progress_begin(OrvexProgress* progress);
void orvex_progress_set_key(OrvexProgress* progress, guint connection, guint request);
/// Tells the listener, if the state is another one. What has moved before is told before.
void orvex_progress_set_state(OrvexProgress* progress, OrvexRequestState state);
/// Bytes have moved. The listener is told now and then.
void orvex_progress_count(OrvexProgress* progress, gsize sent, gsize received);
/// What still moves is told at once: no time goes by here any more.
void orvex_progress_stop(OrvexProgress* progress);
/// The transfer is over, with this error or NULL. The listener is told nothing more.
void orvex_progress_end(OrvexProgress* progress, const GError* error);
