#pragma once

#include <gio/gio.h>

// The thread on which this library speaks with the bus. One serves all clients of the process; it
// begins with the first one and stays. Nothing on it ever waits, so that an answer is taken and a
// question is sent whatever the program's own threads do.

/// Its main context. Calls that are started on the thread come back on it.
GMainContext* orvex_worker_context(void);

/// Runs `action` once in `context`, behind what was posted before; then `release`, if not NULL,
/// with the same data. Also when the context ends first, `release` is called.
void orvex_post(GMainContext* context, int priority, void (*action)(gpointer), gpointer data,
                GDestroyNotify release);

/// The same, for a context to which the caller attaches it. The caller owns a reference.
GSource* orvex_prepare_post(int priority, void (*action)(gpointer), gpointer data,
                            GDestroyNotify release);

/// The same as orvex_post() on the worker.
void orvex_worker_post(void (*action)(gpointer), gpointer data, GDestroyNotify release);

/// Answers a task in the context of its own, and drops it there: the worker must not be the one
/// that frees a caller's objects. Each takes the task, and the error.
void orvex_task_return_error(GTask* task, GError* error);
void orvex_task_return_int(GTask* task, gssize value);
void orvex_task_return_boolean(GTask* task, gboolean value);
void orvex_task_return_bytes(GTask* task, GBytes* value);

/// A timer on the worker that fires once: the source is attached and owned by the caller.
GSource* orvex_worker_timer(guint milliseconds, GSourceFunc action, gpointer data);

/// Ends a timer or another source, if there is one.
void orvex_source_clear(GSource** source);

/// For the blocking forms: a main context of their own that becomes the thread's default one, so
/// that the main loop of the caller does not run meanwhile.
typedef struct {
    GMainContext* context;
    GAsyncResult* result;
} OrvexWait;

void orvex_wait_begin(OrvexWait* wait);
/// The callback of the asynchronous form; its data is the wait.
void orvex_wait_done(GObject* source, GAsyncResult* result, gpointer wait);
/// Runs the context until the callback was called. @return the result; free it.
GAsyncResult* orvex_wait_end(OrvexWait* wait);
