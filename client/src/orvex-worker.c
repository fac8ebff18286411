#include "orvex-worker.h"

#include "orvex-sync.h"

typedef struct {
    void (*action)(gpointer);
    gpointer data;
    GDestroyNotify release;
    GSource* source; ///< that it lets go of in the end, or NULL
} Post;

static gpointer worker_run(gpointer context) {
    g_main_context_push_thread_default(context);
    g_autoptr(GMainLoop) loop = g_main_loop_new(context, FALSE);
    g_main_loop_run(loop); // for ever
    return NULL;
}

GMainContext* orvex_worker_context(void) {
    static gsize once = 0;
    static GMainContext* context = NULL;
    if (g_once_init_enter(&once)) {
        context = g_main_context_new();
        g_thread_unref(g_thread_new("orvexclient", worker_run, context));
        g_once_init_leave(&once, 1);
    }
    return context;
}

static gboolean post_run(gpointer data) {
    ORVEX_ACQUIRE(data);
    const Post* post = data;
    post->action(post->data);
    return G_SOURCE_REMOVE;
}

static void post_free(gpointer data) {
    ORVEX_ACQUIRE(data);
    Post* post = data;
    if (post->release != NULL) {
        post->release(post->data);
    }
    g_clear_pointer(&post->source, g_source_unref);
    g_free(post);
}

static GSource* prepare(int priority, Post* post) {
    GSource* source = g_idle_source_new();
    g_source_set_priority(source, priority);
    g_source_set_callback(source, post_run, post, post_free);
    return source;
}

static Post* post_new(void (*action)(gpointer), gpointer data, GDestroyNotify release) {
    Post* post = g_new(Post, 1);
    *post = (Post){action, data, release, NULL};
    return post;
}

GSource* orvex_prepare_post(int priority, void (*action)(gpointer), gpointer data,
                            GDestroyNotify release) {
    Post* post = post_new(action, data, release);
    ORVEX_RELEASE(post);
    return prepare(priority, post);
}

void orvex_post(GMainContext* context, int priority, void (*action)(gpointer), gpointer data,
                GDestroyNotify release) {
    Post* post = post_new(action, data, release);
    GSource* source = prepare(priority, post);
    // Once it is attached it may run, and its context may end, before this thread goes on. Whoever
    // drops a source locks its context: so the post does that, and this thread does not touch it.
    post->source = source;
    ORVEX_RELEASE(post);
    g_source_attach(source, context);
}

void orvex_worker_post(void (*action)(gpointer), gpointer data, GDestroyNotify release) {
    orvex_post(orvex_worker_context(), G_PRIORITY_DEFAULT, action, data, release);
}

// -- tasks ---------------------------------------------------------------------------------------

typedef struct {
    GTask* task;
    enum { OUTCOME_ERROR, OUTCOME_INT, OUTCOME_BOOLEAN, OUTCOME_BYTES } kind;
    union {
        GError* error;
        gssize number;
        GBytes* bytes;
    } value;
} Outcome;

static void outcome_tell(gpointer data) {
    Outcome* outcome = data;
    switch (outcome->kind) {
    case OUTCOME_ERROR:
        g_task_return_error(outcome->task, g_steal_pointer(&outcome->value.error));
        break;
    case OUTCOME_INT:
        g_task_return_int(outcome->task, outcome->value.number);
        break;
    case OUTCOME_BOOLEAN:
        g_task_return_boolean(outcome->task, outcome->value.number != 0);
        break;
    case OUTCOME_BYTES:
        g_task_return_pointer(outcome->task, g_steal_pointer(&outcome->value.bytes),
                              (GDestroyNotify)g_bytes_unref);
        break;
    }
}

/// The context may have ended before the outcome was told.
static void outcome_free(gpointer data) {
    Outcome* outcome = data;
    if (outcome->kind == OUTCOME_ERROR) {
        g_clear_error(&outcome->value.error);
    } else if (outcome->kind == OUTCOME_BYTES) {
        g_clear_pointer(&outcome->value.bytes, g_bytes_unref);
    }
    g_object_unref(outcome->task);
    g_free(outcome);
}

static void task_return(const Outcome* outcome) {
    Outcome* copy = g_new(Outcome, 1);
    *copy = *outcome;
    orvex_post(g_task_get_context(copy->task), g_task_get_priority(copy->task), outcome_tell, copy,
               outcome_free);
}

void orvex_task_return_error(GTask* task, GError* error) {
    task_return(&(Outcome){task, OUTCOME_ERROR, {.error = error}});
}

void orvex_task_return_int(GTask* task, gssize value) {
    task_return(&(Outcome){task, OUTCOME_INT, {.number = value}});
}

void orvex_task_return_boolean(GTask* task, gboolean value) {
    task_return(&(Outcome){task, OUTCOME_BOOLEAN, {.number = value}});
}

void orvex_task_return_bytes(GTask* task, GBytes* value) {
    task_return(&(Outcome){task, OUTCOME_BYTES, {.bytes = value}});
}

// -- timers and waits ----------------------------------------------------------------------------

GSource* orvex_worker_timer(guint milliseconds, GSourceFunc action, gpointer data) {
    GSource* source = g_timeout_source_new(milliseconds);
    g_source_set_callback(source, action, data, NULL);
    g_source_attach(source, orvex_worker_context());
    return source;
}

void orvex_source_clear(GSource** source) {
    if (*source != NULL) {
        g_source_destroy(*source);
        g_clear_pointer(source, g_source_unref);
    }
}

void orvex_wait_begin(OrvexWait* wait) {
    wait->context = g_main_context_new();
    wait->result = NULL;
    g_main_context_push_thread_default(wait->context);
}

void orvex_wait_done(GObject* source, GAsyncResult* result, gpointer wait) {
    (void)source;
    ((OrvexWait*)wait)->result = g_object_ref(result);
}

GAsyncResult* orvex_wait_end(OrvexWait* wait) {
    while (wait->result == NULL) {
        g_main_context_iteration(wait->context, TRUE);
    }
    g_main_context_pop_thread_default(wait->context);
    g_main_context_unref(wait->context);
    return wait->result;
}
