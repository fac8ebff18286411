#pragma once

#include <gio/gio.h>

// The chunks of an answer, between the worker, which brings them, and whoever reads. The lock
// guards all that both sides touch; a reader that blocks waits for its condition. It is a part of a
// transfer, which it keeps while a task waits.

typedef struct OrvexAnswer OrvexAnswer;

/// @param transfer an OrvexCounted
/// @param has_room called on any thread when an answer that was full is so no more
/// @param collect whether the whole answer is told at once, as bytes
/// @param limit most bytes of an answer that is collected; 0: no limit
OrvexAnswer* orvex_answer_new(gpointer transfer, void (*has_room)(gpointer transfer),
                              gboolean collect, guint64 limit);
void orvex_answer_free(OrvexAnswer* answer);

/// Before anything comes: the task that waits for the beginning, and returns a boolean then, or for
/// the whole answer, and returns bytes.
void orvex_answer_begin(OrvexAnswer* answer, GTask* task);

// -- the worker ----------------------------------------------------------------------------------

/// Of the task that waits for the beginning, which was not answered yet.
GCancellable* orvex_answer_get_cancellable(OrvexAnswer* answer);

/// Whether so many bytes are more than the answer may have.
gboolean orvex_answer_is_too_long(const OrvexAnswer* answer, gsize more);
/// Keeps a chunk. Takes the bytes.
void orvex_answer_keep(OrvexAnswer* answer, GBytes* bytes, gboolean ends_part);
/// Nothing more comes. Takes the error; without one, the answer is whole.
void orvex_answer_end(OrvexAnswer* answer, GError* error);
/// Answers who waits for what was kept.
void orvex_answer_wake(OrvexAnswer* answer);

/// Whether the reader has as much as it may have. If so, has_room() will be called.
gboolean orvex_answer_is_full(OrvexAnswer* answer);
/// Whether the one who fills it was told so, and has not been called since.
gboolean orvex_answer_is_paused(OrvexAnswer* answer);

// -- the reader: any thread, one at a time -------------------------------------------------------

/// The next bytes of this part of the answer, counted from 0. @return 0 at the part's end, -1 after
/// an error
gssize orvex_answer_read(OrvexAnswer* answer, guint part, void* buffer, gsize size,
                         GCancellable* cancellable, GError** error);
/// The same later; the task returns an int.
void orvex_answer_read_async(OrvexAnswer* answer, guint part, void* buffer, gsize size,
                             GTask* task);
/// Whether there is nothing more to read in this part.
gboolean orvex_answer_is_at_end(OrvexAnswer* answer, guint part);
/// Leaves what is left of the part and goes to the next one. The task returns its number, or -1
/// when there is none.
void orvex_answer_next_part(OrvexAnswer* answer, GTask* task);
