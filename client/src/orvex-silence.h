#pragma once

#include <glib.h>

// How long nothing has gone on. It is a part of a transfer and belongs to the worker.

typedef struct OrvexSilence OrvexSilence;

/// What it asks and tells the transfer.
typedef struct {
    gboolean (*is_excused)(gpointer transfer); ///< whether it is not the daemon that is silent
    void (*is_too_long)(gpointer transfer);
} OrvexSilenceFunctions;

OrvexSilence* orvex_silence_new(const OrvexSilenceFunctions* functions, gpointer transfer);
void orvex_silence_free(OrvexSilence* silence);

/// @param seconds longest silence; 0: no limit
void orvex_silence_begin(OrvexSilence* silence, guint seconds);
/// Something goes on.
void orvex_silence_break(OrvexSilence* silence);
void orvex_silence_stop(OrvexSilence* silence);
