#include "orvex-upload.h"

#include "orvex-failure.h"

struct OrvexUpload {
    OrvexQuestion* question;
    OrvexDialogue* dialogue;
    const OrvexUploadFunctions* functions;
    gpointer transfer;
    enum { NOT_WANTED, RUNNING, COMPLETE } state;
    gboolean is_held;
    gboolean is_sending;
    gsize piece_size; ///< of the piece under way
    gboolean is_last; ///< likewise
};

OrvexUpload* orvex_upload_new(OrvexQuestion* question, OrvexDialogue* dialogue,
                              const OrvexUploadFunctions* functions, gpointer transfer) {
    OrvexUpload* upload = g_new0(OrvexUpload, 1);
    upload->question = question;
    upload->dialogue = dialogue;
    upload->functions = functions;
    upload->transfer = transfer;
    return upload;
}

void orvex_upload_free(OrvexUpload* upload) {
    g_free(upload);
}

static void piece_taken(OrvexUpload* upload) {
    if (upload->is_last) {
        upload->state = COMPLETE;
        orvex_dialogue_note_upload(upload->dialogue, FALSE);
    }
    upload->functions->sent(upload->transfer, upload->piece_size);
    orvex_upload_pump(upload);
}

static void piece_sent(gpointer data, GVariant* reply, GError* error) {
    OrvexUpload* upload = data;
    gint code = 0;
    upload->is_sending = FALSE;
    if (error != NULL) {
        upload->functions->failed(upload->transfer, error);
        return;
    }
    g_variant_get(reply, "(i)", &code);
    if (code != 0) {
        g_autoptr(GError) refused = orvex_failure_from_code((guint)code, TRUE);
        upload->functions->failed(upload->transfer, refused);
        return;
    }
    piece_taken(upload);
}

void orvex_upload_pump(OrvexUpload* upload) {
    if (upload->is_held || upload->is_sending || upload->state != RUNNING) {
        return;
    }
    g_autoptr(GBytes) piece = orvex_question_take_piece(upload->question, &upload->is_last);
    if (piece == NULL) {
        return;
    }
    upload->is_sending = TRUE;
    upload->piece_size = g_bytes_get_size(piece);
    orvex_dialogue_send_piece(upload->dialogue, piece, upload->is_last, piece_sent, upload);
}

void orvex_upload_begin(OrvexUpload* upload) {
    upload->state = RUNNING;
    orvex_dialogue_note_upload(upload->dialogue, TRUE);
    orvex_upload_pump(upload);
}

void orvex_upload_hold(OrvexUpload* upload) {
    upload->is_held = TRUE;
}

gboolean orvex_upload_has_begun(const OrvexUpload* upload) {
    return upload->state != NOT_WANTED;
}

gboolean orvex_upload_is_running(const OrvexUpload* upload) {
    return upload->state == RUNNING;
}

gboolean orvex_upload_is_complete(const OrvexUpload* upload) {
    return upload->state == COMPLETE;
}

gboolean orvex_upload_is_sending(const OrvexUpload* upload) {
    return upload->is_sending;
}
