#pragma once

#include "orvex-dialogue.h"
#include "orvex-question.h"

// The question's way to the daemon, once that wants it. One piece is under way at a time: the
// daemon holds the reply back while the server is slower. It is a part of a transfer and belongs to
// the worker.

typedef struct OrvexUpload OrvexUpload;

/// What the transfer is told.
typedef struct {
    /// The daemon has taken a piece.
    void (*sent)(gpointer transfer, gsize size);
    /// The daemon has refused a piece, or cannot be reached. Does not give the error away.
    void (*failed)(gpointer transfer, const GError* error);
} OrvexUploadFunctions;

OrvexUpload* orvex_upload_new(OrvexQuestion* question, OrvexDialogue* dialogue,
                              const OrvexUploadFunctions* functions, gpointer transfer);
void orvex_upload_free(OrvexUpload* upload);

/// The daemon wants the question.
void orvex_upload_begin(OrvexUpload* upload);
/// Sends the next piece, if it is there and wanted.
void orvex_upload_pump(OrvexUpload* upload);
/// Sends no further piece. What the daemon waits for, it goes on to wait for.
void orvex_upload_hold(OrvexUpload* upload);

/// Whether the daemon has wanted the question.
gboolean orvex_upload_has_begun(const OrvexUpload* upload);
/// Whether the daemon waits for the rest.
gboolean orvex_upload_is_running(const OrvexUpload* upload);
/// Whether the daemon has the whole question.
gboolean orvex_upload_is_complete(const OrvexUpload* upload);
/// Whether a piece is under way.
gboolean orvex_upload_is_sending(const OrvexUpload* upload);
