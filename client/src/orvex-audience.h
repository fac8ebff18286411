#pragma once

#include <glib-object.h>

// Who hears that a property of the client has changed. The worker tells; the client hears it in its
// main context.

typedef struct OrvexAudience OrvexAudience;

/// @param changed called in `context` with the name of a property that has changed, and `client`,
/// of which this holds a weak reference
OrvexAudience* orvex_audience_new(GMainContext* context,
                                  void (*changed)(gpointer client, const char* property),
                                  gpointer client);
void orvex_audience_free(OrvexAudience* audience);

/// One notification of each property is on its way at the most: it does not carry the value.
void orvex_audience_tell_status(OrvexAudience* audience);
void orvex_audience_tell_running(OrvexAudience* audience);
