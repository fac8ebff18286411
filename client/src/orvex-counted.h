#pragma once

#include <glib.h>
#include <stdatomic.h>

// What several owners share: whoever drops the last reference frees it. Such an object begins with
// an OrvexCounted, and its pointer is one to that. Any thread may take and drop references.

typedef struct {
    atomic_int refs;
    GDestroyNotify unused; ///< frees the object, on the thread that drops the last reference
} OrvexCounted;

/// The caller owns a reference.
void orvex_counted_init(gpointer object, GDestroyNotify unused);
/// @return the object
gpointer orvex_counted_ref(gpointer object);
void orvex_counted_unref(gpointer object);

/// For who knows an object that may be on its way out. @return whether there is a reference now
gboolean orvex_counted_ref_if_alive(gpointer object);
