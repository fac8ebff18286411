#include "orvex-download.h"

#include "orvex-failure.h"

enum { PART_CONTINUES = 2301, PART_COMPLETE = 2302, RESPONSE_COMPLETE = 2303 };

struct OrvexDownload {
    OrvexAnswer* answer;
    OrvexDialogue* dialogue;
    const OrvexDownloadFunctions* functions;
    gpointer transfer;
    OrvexSettling* settling;
    guint chunks; ///< that have come
    gboolean is_fetching;
    guint calls;           ///< for chunks
    gboolean is_call_held; ///< by the daemon, which has nothing yet
    gboolean is_complete;
    gboolean is_held;
    gboolean is_stopped;
    GCancellable* stop; ///< ends the call, which may last
};

OrvexDownload* orvex_download_new(OrvexAnswer* answer, OrvexDialogue* dialogue,
                                  const OrvexDownloadFunctions* functions, gpointer transfer) {
    OrvexDownload* download = g_new0(OrvexDownload, 1);
    download->answer = answer;
    download->dialogue = dialogue;
    download->functions = functions;
    download->transfer = transfer;
    download->settling = orvex_settling_new(dialogue, &functions->settling, transfer);
    download->stop = g_cancellable_new();
    return download;
}

void orvex_download_free(OrvexDownload* download) {
    orvex_settling_free(download->settling);
    g_object_unref(download->stop);
    g_free(download);
}

/// Takes the bytes. @param code tells what is behind them
static void keep_chunk(OrvexDownload* download, GBytes* bytes, guint code) {
    const gsize size = g_bytes_get_size(bytes);
    download->chunks += size > 0 || download->chunks > 0 ? 1 : 0;
    orvex_answer_keep(download->answer, bytes, code == PART_COMPLETE);
    // The daemon's next step first: who is woken might want its processor.
    if (code == RESPONSE_COMPLETE) {
        download->is_complete = TRUE;
        orvex_settling_begin(download->settling, download->chunks, size, download->is_call_held);
    } else {
        orvex_download_fetch(download);
    }
    download->functions->came(download->transfer, size);
}

static void chunk_came(gpointer data, GVariant* reply, GError* error) {
    OrvexDownload* download = data;
    const OrvexDownloadFunctions* functions = download->functions;
    download->is_fetching = FALSE;
    if (error != NULL) {
        functions->failed(download->transfer, error);
        return;
    }
    if (download->is_stopped) {
        return;
    }
    g_autoptr(GVariant) array = NULL;
    guint code = 0;
    g_variant_get(reply, "(@ayu)", &array, &code);
    g_autoptr(GBytes) bytes = g_variant_get_data_as_bytes(array);
    if (code < PART_CONTINUES || code > RESPONSE_COMPLETE) {
        functions->is_unusable(download->transfer,
                               orvex_failure_new(ORVEX_ERROR_PROTOCOL, code, NULL));
    } else if (orvex_answer_is_too_long(download->answer, g_bytes_get_size(bytes))) {
        functions->is_unusable(download->transfer,
                               orvex_failure_new(ORVEX_ERROR_TOO_LONG, 0, NULL));
    } else {
        keep_chunk(download, g_steal_pointer(&bytes), code);
    }
}

void orvex_download_fetch(OrvexDownload* download) {
    if (download->is_held || download->is_fetching || download->is_complete ||
        orvex_answer_is_full(download->answer)) {
        return;
    }
    download->is_fetching = TRUE;
    ++download->calls;
    download->is_call_held = FALSE;
    orvex_dialogue_fetch(download->dialogue, download->stop, chunk_came, download);
}

void orvex_download_note_piece(OrvexDownload* download) {
    // Only the first call is older than every piece: a later one may be younger than this one.
    download->is_call_held = download->is_fetching && download->calls == 1;
}

void orvex_download_hold(OrvexDownload* download) {
    download->is_held = TRUE;
}

void orvex_download_stop(OrvexDownload* download) {
    download->is_held = TRUE;
    download->is_stopped = TRUE;
    orvex_settling_stop(download->settling);
    g_cancellable_cancel(download->stop);
}

gboolean orvex_download_has_begun(const OrvexDownload* download) {
    return download->chunks > 0;
}

gboolean orvex_download_is_complete(const OrvexDownload* download) {
    return download->is_complete;
}

gboolean orvex_download_is_settled(const OrvexDownload* download) {
    return orvex_settling_is_settled(download->settling);
}

gboolean orvex_download_is_fetching(const OrvexDownload* download) {
    return download->is_fetching;
}
