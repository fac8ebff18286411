#pragma once

#include "orvex-dialogue.h"

// Whether an answer that seems to be whole is so. It is a part of a transfer and
// belongs to the worker.
//
// A transfer that breaks off within the last part of an answer completes the part: the last chunk
// comes as if the answer were whole, and right behind it the failure of the exchange. The daemon
// tells it one turn of its main loop later, so that it comes before the answers to two calls, for
// which the answer's end waits. What the daemon's worker needs in between is half a millisecond, or
// some time slices where others want the processor: how long the two calls take tells how busy the
// machine is. An answer whose only chunk is longer than a boundary cannot have broken off if the
// daemon held the call for it before any of it was there: the bytes of a part that goes on are a
// chunk of their own then. It did when it took a piece of the question meanwhile, unless the server
// answers what it has not read.

typedef struct OrvexSettling OrvexSettling;

/// What the transfer is told.
typedef struct {
    void (*settled)(gpointer transfer);     ///< nothing holds the answer's end back any more
    void (*daemon_gone)(gpointer transfer); ///< it cannot speak against the answer any more
} OrvexSettlingFunctions;

OrvexSettling* orvex_settling_new(OrvexDialogue* dialogue, const OrvexSettlingFunctions* functions,
                                  gpointer transfer);
void orvex_settling_free(OrvexSettling* settling);

/// The last chunk has come: waits for what may speak against it. @param chunks that have come
/// @param last bytes of the last one @param was_held whether the daemon held the call for it
void orvex_settling_begin(OrvexSettling* settling, guint chunks, gsize last, gboolean was_held);
void orvex_settling_stop(OrvexSettling* settling);

gboolean orvex_settling_is_settled(const OrvexSettling* settling);
