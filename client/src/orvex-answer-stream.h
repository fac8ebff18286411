#pragma once

#include "orvex-request.h"
#include "orvex-transfer.h"

/// A part of an answer as a stream. It keeps its request alive; closing or dropping it before its
/// end gives the request up.
GInputStream* orvex_answer_stream_new(OrvexRequest* request, OrvexTransfer* transfer, guint part);
