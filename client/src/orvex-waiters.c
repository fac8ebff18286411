#include "orvex-waiters.h"

#include "orvex-failure.h"
#include "orvex-worker.h"

enum { LOOK_FOR_BUS_MS = 500 };

struct OrvexWaiters {
    const OrvexWaitersLink* functions;
    gpointer link;
    GList* list;   ///< of Waiter
    GSource* look; ///< for the bus, while somebody waits
};

typedef struct {
    OrvexWaiters* waiters;
    OrvexPolicy policy;
    GTask* task;
    GSource* cancelled;
} Waiter;

OrvexWaiters* orvex_waiters_new(const OrvexWaitersLink* functions, gpointer link) {
    OrvexWaiters* waiters = g_new0(OrvexWaiters, 1);
    waiters->functions = functions;
    waiters->link = link;
    return waiters;
}

void orvex_waiters_free(OrvexWaiters* waiters) {
    g_free(waiters);
}

gboolean orvex_waiters_is_empty(const OrvexWaiters* waiters) {
    return waiters->list == NULL;
}

static gboolean is_usable(OrvexStatus status, OrvexPolicy policy) {
    if ((status & ORVEX_STATUS_CONNECTED) == 0) {
        return FALSE;
    }
    switch (policy) {
    case ORVEX_POLICY_ANY:
        return TRUE;
    case ORVEX_POLICY_NOT_FLAGGED:
        return (status & ORVEX_STATUS_KIND_ONE) != 0 || (status & ORVEX_STATUS_FLAGGED) == 0;
    case ORVEX_POLICY_KIND_ONE:
    default:
        return (status & ORVEX_STATUS_KIND_ONE) != 0;
    }
}

/// Takes the waiter from the list. The caller answers its task.
static GTask* waiter_free(Waiter* waiter) {
    OrvexWaiters* waiters = waiter->waiters;
    GTask* task = waiter->task;
    waiters->list = g_list_remove(waiters->list, waiter);
    if (waiters->list == NULL) {
        orvex_source_clear(&waiters->look);
    }
    orvex_source_clear(&waiter->cancelled);
    g_free(waiter);
    return task;
}

void orvex_waiters_serve(OrvexWaiters* waiters, OrvexStatus status) {
    for (GList* each = waiters->list; each != NULL;) {
        Waiter* waiter = each->data;
        each = each->next;
        if (is_usable(status, waiter->policy)) {
            orvex_task_return_boolean(waiter_free(waiter), TRUE);
        }
    }
}

void orvex_waiters_fail(OrvexWaiters* waiters, const GError* error) {
    while (waiters->list != NULL) {
        orvex_task_return_error(waiter_free(waiters->list->data), g_error_copy(error));
    }
}

void orvex_waiters_fail_without_bus(OrvexWaiters* waiters) {
    g_autoptr(GError) no_bus = orvex_failure_new(ORVEX_ERROR_NO_BUS, 0, NULL);
    orvex_waiters_fail(waiters, no_bus);
}

static gboolean waiter_cancelled(GCancellable* cancellable, gpointer data) {
    (void)cancellable;
    orvex_task_return_error(waiter_free(data), orvex_failure_cancelled());
    return G_SOURCE_REMOVE;
}

/// A connection tells its end in the context in which it was made. That one may never run.
static gboolean look_for_bus(gpointer data) {
    OrvexWaiters* waiters = data;
    if (waiters->functions->is_connected(waiters->link)) {
        return G_SOURCE_CONTINUE;
    }
    orvex_waiters_fail_without_bus(waiters);
    return G_SOURCE_REMOVE;
}

static void begin_to_wait(gpointer data) {
    Waiter* waiter = data;
    OrvexWaiters* waiters = waiter->waiters;
    if (!waiters->functions->is_connected(waiters->link)) {
        orvex_task_return_error(waiter_free(waiter),
                                orvex_failure_new(ORVEX_ERROR_NO_BUS, 0, NULL));
        return;
    }
    waiters->list = g_list_prepend(waiters->list, waiter);
    if (waiters->look == NULL) {
        waiters->look = orvex_worker_timer(LOOK_FOR_BUS_MS, look_for_bus, waiters);
    }
    GCancellable* cancellable = g_task_get_cancellable(waiter->task);
    if (cancellable != NULL) {
        waiter->cancelled = g_cancellable_source_new(cancellable);
        g_source_set_callback(waiter->cancelled, G_SOURCE_FUNC(waiter_cancelled), waiter, NULL);
        g_source_attach(waiter->cancelled, orvex_worker_context());
    }
    waiters->functions->ask(waiters->link);
}

void orvex_waiters_wait(OrvexWaiters* waiters, OrvexPolicy policy, GTask* task) {
    Waiter* waiter = g_new0(Waiter, 1);
    waiter->waiters = waiters;
    waiter->policy = policy;
    waiter->task = g_object_ref(task);
    orvex_worker_post(begin_to_wait, waiter, NULL);
}
