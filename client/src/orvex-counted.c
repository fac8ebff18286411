#include "orvex-counted.h"

void orvex_counted_init(gpointer object, GDestroyNotify unused) {
    OrvexCounted* counted = object;
    atomic_init(&counted->refs, 1);
    counted->unused = unused;
}

gpointer orvex_counted_ref(gpointer object) {
    atomic_fetch_add(&((OrvexCounted*)object)->refs, 1);
    return object;
}

void orvex_counted_unref(gpointer object) {
    OrvexCounted* counted = object;
    if (atomic_fetch_sub(&counted->refs, 1) == 1) {
        counted->unused(object);
    }
}

gboolean orvex_counted_ref_if_alive(gpointer object) {
    OrvexCounted* counted = object;
    int refs = atomic_load(&counted->refs);
    while (refs > 0 && !atomic_compare_exchange_weak(&counted->refs, &refs, refs + 1)) {
    }
    return refs > 0;
}
