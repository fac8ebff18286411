#pragma once

#include <gio/gio.h>

// The bytes of a question, cut into pieces. Those of a stream are read ahead, in the main context
// in which the stream may be used; everything else happens on the worker. It is a part of a
// transfer, which it keeps while a reading is under way.

typedef struct OrvexQuestion OrvexQuestion;

/// Where the question comes from. The question takes what it is given.
typedef struct {
    GBytes* bytes;         ///< all of it, or
    GInputStream* stream;  ///< where it comes from
    GMainContext* context; ///< in which the stream is read
    int io_priority;
    gsize piece_size; ///< of the largest piece
} OrvexQuestionSource;

/// What the transfer is told.
typedef struct {
    /// There is something to send.
    void (*has_piece)(gpointer transfer);
    /// The stream has failed. Takes the error.
    void (*failed)(gpointer transfer, GError* error);
    /// Behind a stop: the stream is not in use any more.
    void (*is_free)(gpointer transfer);
} OrvexQuestionFunctions;

/// @param transfer an OrvexCounted
OrvexQuestion* orvex_question_new(const OrvexQuestionSource* source,
                                  const OrvexQuestionFunctions* functions, gpointer transfer);
void orvex_question_free(OrvexQuestion* question);

/// Reads on before anything is wanted, so that a source that needs its time does not keep the
/// daemon waiting.
void orvex_question_read_ahead(OrvexQuestion* question);

/// The next piece; empty if nothing else tells that the question has ended. @return NULL when
/// nothing is there yet
GBytes* orvex_question_take_piece(OrvexQuestion* question, gboolean* is_last);

/// No more is wanted. A reading that has not begun never will: its context may not run any more.
/// One that has begun comes to its end.
void orvex_question_stop(OrvexQuestion* question);
/// Whether the stream is in use. Behind a stop, is_free() is called when it ends.
gboolean orvex_question_is_reading(const OrvexQuestion* question);
