#pragma once

#include "orvex-error.h"

// What an error of this library carries besides its sentence. It belongs to who owns the error.

/// Gives a new error the daemon's number, 0 for none, and the words that came with it, or NULL.
void orvex_error_set_cause(GError* error, guint code, const char* detail);
