#pragma once

#include "orvex-answer.h"
#include "orvex-dialogue.h"
#include "orvex-progress.h"
#include "orvex-question.h"
#include "orvex-seats.h"

#include <gio/gio.h>

// One request on its way, from "connect" to "disconnect": the steps with the daemon, and how they
// end. It belongs to the worker, but for what is marked. What other threads see is in its parts,
// which have locks of their own.
//
// Question and answer travel side by side: the daemon may answer while it still takes bytes, and it
// tells of a lost network only to those who wait for a chunk. Each direction has one call under way
// at the most. Whatever ends the request, the transfer cancels what is left of it and disconnects:
// the daemon would keep the remains. Only then the end is told.

/// What is to be done. The transfer takes all of it.
typedef struct {
    OrvexTerms terms;
    OrvexQuestionSource question;
    OrvexListener listener;
    guint timeout;        ///< seconds without progress; 0: no limit
    guint64 answer_limit; ///< bytes, of a collected answer; 0: no limit
    gboolean collect;     ///< the task returns the whole answer
} OrvexPlan;

/// An OrvexCounted. The last reference may be dropped on any thread.
typedef struct OrvexTransfer OrvexTransfer;

/// Any thread. Nothing happens before it is started.
OrvexTransfer* orvex_transfer_new(OrvexSeats* seats, const OrvexPlan* plan);
/// Any thread. The worker begins. The task returns a boolean when the first part of the answer has
/// begun, or the answer's bytes if they are collected. Its cancellable ends the transfer at any
/// time, also later.
void orvex_transfer_start(OrvexTransfer* transfer, GTask* task);

/// Nobody wants the answer any more. Any thread, at any time.
void orvex_transfer_abandon(OrvexTransfer* transfer);

/// What the reader reads. It lives as long as the transfer; any thread.
OrvexAnswer* orvex_transfer_get_answer(OrvexTransfer* transfer);
/// How far it is; likewise.
OrvexProgress* orvex_transfer_get_progress(OrvexTransfer* transfer);
