#include "orvex-silence.h"

#include "orvex-worker.h"

struct OrvexSilence {
    const OrvexSilenceFunctions* functions;
    gpointer transfer;
    gint64 limit; ///< microseconds
    gint64 since; ///< when something went on
    GSource* timer;
};

OrvexSilence* orvex_silence_new(const OrvexSilenceFunctions* functions, gpointer transfer) {
    OrvexSilence* silence = g_new0(OrvexSilence, 1);
    silence->functions = functions;
    silence->transfer = transfer;
    return silence;
}

void orvex_silence_free(OrvexSilence* silence) {
    g_free(silence);
}

void orvex_silence_break(OrvexSilence* silence) {
    silence->since = g_get_monotonic_time();
}

void orvex_silence_stop(OrvexSilence* silence) {
    orvex_source_clear(&silence->timer);
}

static void look_later(OrvexSilence* silence, gint64 microseconds, GSourceFunc look) {
    const gint64 milliseconds = MIN(microseconds / 1000 + 1, (gint64)G_MAXUINT);
    orvex_source_clear(&silence->timer);
    silence->timer = orvex_worker_timer((guint)milliseconds, look, silence);
}

static gboolean look(gpointer data) {
    OrvexSilence* silence = data;
    if (silence->functions->is_excused(silence->transfer)) {
        orvex_silence_break(silence);
    }
    const gint64 silent = g_get_monotonic_time() - silence->since;
    if (silent < silence->limit) {
        look_later(silence, silence->limit - silent, look);
    } else {
        silence->functions->is_too_long(silence->transfer);
    }
    return G_SOURCE_REMOVE;
}

void orvex_silence_begin(OrvexSilence* silence, guint seconds) {
    silence->limit = (gint64)seconds * G_USEC_PER_SEC;
    orvex_silence_break(silence);
    if (seconds != 0) {
        look_later(silence, silence->limit, look);
    }
}
