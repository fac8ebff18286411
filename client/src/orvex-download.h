#pragma once

#include "orvex-answer.h"
#include "orvex-dialogue.h"
#include "orvex-settling.h"

// The answer's way from the daemon: asks for chunk after chunk, as long as the reader has room, and
// lets the last one settle. It is a part of a transfer and belongs to the worker.

typedef struct OrvexDownload OrvexDownload;

/// What the transfer is told.
typedef struct {
    /// A chunk has come, and the next step with the daemon is done.
    void (*came)(gpointer transfer, gsize size);
    /// The daemon has refused to give a chunk, or cannot be reached. Does not give the error away.
    void (*failed)(gpointer transfer, const GError* error);
    /// What has come is of no use. Takes the error.
    void (*is_unusable)(gpointer transfer, GError* error);
    OrvexSettlingFunctions settling;
} OrvexDownloadFunctions;

OrvexDownload* orvex_download_new(OrvexAnswer* answer, OrvexDialogue* dialogue,
                                  const OrvexDownloadFunctions* functions, gpointer transfer);
void orvex_download_free(OrvexDownload* download);

/// Asks for the next chunk, unless the reader has as much as it may have.
void orvex_download_fetch(OrvexDownload* download);
/// The daemon has taken a piece of the question: if the first call for a chunk, which is older, is
/// not answered, it holds that.
void orvex_download_note_piece(OrvexDownload* download);
/// Asks for no further chunk.
void orvex_download_hold(OrvexDownload* download);
/// Nothing more is wanted, not even the chunk that was asked for.
void orvex_download_stop(OrvexDownload* download);

/// Whether a chunk has come that is not an empty one at the beginning.
gboolean orvex_download_has_begun(const OrvexDownload* download);
/// Whether the last chunk has come.
gboolean orvex_download_is_complete(const OrvexDownload* download);
/// Whether nothing has spoken against that for long enough.
gboolean orvex_download_is_settled(const OrvexDownload* download);
/// Whether a chunk was asked for.
gboolean orvex_download_is_fetching(const OrvexDownload* download);
