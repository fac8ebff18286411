#include "orvex-settling.h"

#include "orvex-failure.h"
#include "orvex-worker.h"

enum {
    SETTLE_CALLS = 2,
    SETTLE_LEAST_MS = 10,
    SETTLE_TURNS = 8,    ///< times as long as the calls took
    SETTLE_MOST_MS = 30, ///< when the daemon has answered
    BOUNDARY_SIZE = 256, ///< more than a boundary with its line ends
};

struct OrvexSettling {
    OrvexDialogue* dialogue;
    const OrvexSettlingFunctions* functions;
    gpointer transfer;
    gboolean may_be_torn;
    gint64 last_chunk; ///< when it came
    guint turns;       ///< calls behind it that are not answered
    GSource* timer;
    gboolean is_settled;
    gboolean is_stopped;
};

OrvexSettling* orvex_settling_new(OrvexDialogue* dialogue, const OrvexSettlingFunctions* functions,
                                  gpointer transfer) {
    OrvexSettling* settling = g_new0(OrvexSettling, 1);
    settling->dialogue = dialogue;
    settling->functions = functions;
    settling->transfer = transfer;
    return settling;
}

void orvex_settling_free(OrvexSettling* settling) {
    g_free(settling);
}

static void settle(OrvexSettling* settling) {
    settling->is_settled = TRUE;
    settling->functions->settled(settling->transfer);
}

static gboolean waited_long_enough(gpointer settling) {
    settle(settling);
    return G_SOURCE_REMOVE;
}

static void settle_later(OrvexSettling* settling, gint64 milliseconds) {
    orvex_source_clear(&settling->timer);
    settling->timer = orvex_worker_timer((guint)milliseconds, waited_long_enough, settling);
}

/// A call behind the last chunk is answered. One that is not, as the daemon hangs, fails in the
/// end.
static void turned(gpointer data, GVariant* reply, GError* error) {
    OrvexSettling* settling = data;
    (void)reply;
    if (g_error_matches(error, ORVEX_ERROR, ORVEX_ERROR_DAEMON_GONE) ||
        g_error_matches(error, ORVEX_ERROR, ORVEX_ERROR_NOT_INSTALLED)) {
        settling->functions->daemon_gone(settling->transfer);
        return;
    }
    if (settling->is_stopped || settling->is_settled) {
        return;
    }
    if (error != NULL) { // nothing more is to be learnt
        settle_later(settling, SETTLE_MOST_MS);
        return;
    }
    if (--settling->turns > 0) {
        return;
    }
    const gint64 took = (g_get_monotonic_time() - settling->last_chunk) / 1000;
    const gint64 wanted = MAX(SETTLE_LEAST_MS, SETTLE_TURNS * took);
    if (!settling->may_be_torn || took >= SETTLE_MOST_MS) {
        settle(settling);
    } else {
        settle_later(settling, MIN(wanted, SETTLE_MOST_MS) - took);
    }
}

void orvex_settling_begin(OrvexSettling* settling, guint chunks, gsize last, gboolean was_held) {
    settling->may_be_torn = chunks > 1 || last <= BOUNDARY_SIZE;
    if (was_held && !settling->may_be_torn) {
        settling->is_settled = TRUE;
        return;
    }
    settling->last_chunk = g_get_monotonic_time();
    settling->turns = SETTLE_CALLS;
    for (int number = 0; number < SETTLE_CALLS; ++number) {
        orvex_dialogue_ping(settling->dialogue, turned, settling);
    }
}

void orvex_settling_stop(OrvexSettling* settling) {
    settling->is_stopped = TRUE;
    orvex_source_clear(&settling->timer);
}

gboolean orvex_settling_is_settled(const OrvexSettling* settling) {
    return settling->is_settled;
}
