#pragma once

#include "orvex-request.h"
#include "orvex-seats.h"

// What a client does with a request, on any thread. The request's lock guards which transfer is its
// last one.

/// Begins a transfer of this request. The task is the client's, and gets data that keep the
/// request.
/// @param bytes or @param stream is the question.
/// @param blocking no main loop runs for it afterwards
void orvex_request_send(OrvexRequest* request, OrvexSeats* seats, GBytes* bytes,
                        GInputStream* stream, int io_priority, gboolean blocking, GTask* task);

/// The stream of the first part, which has begun, for the client's task.
GInputStream* orvex_request_first_part(GTask* task);
