#pragma once

#include "orvex-transfer.h"

#include <gio/gio.h>

// A part of an answer as a stream. Any thread may read it, one at a time; what it reads has a lock
// of its own.

/// @param request what it keeps alive; closing or dropping the stream before its end gives the
/// transfer up
GInputStream* orvex_answer_stream_new(GObject* request, OrvexTransfer* transfer, guint part);
