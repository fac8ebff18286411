#include "support/MainLoopRecord.h"

#include "support/ThreadSanitizer.h"

#include <glib.h>

namespace orvexd {

namespace {

gboolean runRecord(gpointer data) noexcept {
    tsan::acquire(data);
    static_cast<MainLoopRecord*>(data)->run();
    return G_SOURCE_REMOVE;
}

void freeRecord(gpointer data) noexcept {
    tsan::acquire(data);
    const std::unique_ptr<MainLoopRecord> record(static_cast<MainLoopRecord*>(data));
}

} // namespace

void postToMainLoop(std::chrono::milliseconds delay, std::unique_ptr<MainLoopRecord> record) {
    tsan::release(record.get());
    // The source owns the record from here on and frees it through the destroy notification, also
    // when the context ends before the source has run.
    g_timeout_add_full(G_PRIORITY_DEFAULT, static_cast<guint>(delay.count()), runRecord,
                       record.release(), freeRecord);
}

} // namespace orvexd
