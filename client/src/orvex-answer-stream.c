#include "orvex-answer-stream.h"

#include "orvex-sync.h"

#define ORVEX_TYPE_ANSWER_STREAM (orvex_answer_stream_get_type())
G_DECLARE_FINAL_TYPE(OrvexAnswerStream, orvex_answer_stream, ORVEX, ANSWER_STREAM, GInputStream)

struct _OrvexAnswerStream {
    GInputStream parent;
    GObject* request;
    OrvexTransfer* transfer;
    guint part;
};

G_DEFINE_FINAL_TYPE(OrvexAnswerStream, orvex_answer_stream, G_TYPE_INPUT_STREAM)

static gssize answer_stream_read(GInputStream* stream, void* buffer, gsize count,
                                 GCancellable* cancellable, GError** error) {
    OrvexAnswerStream* self = ORVEX_ANSWER_STREAM(stream);
    return orvex_answer_read(orvex_transfer_get_answer(self->transfer), self->part, buffer, count,
                             cancellable, error);
}

static void answer_stream_read_async(GInputStream* stream, void* buffer, gsize count,
                                     int io_priority, GCancellable* cancellable,
                                     GAsyncReadyCallback callback, gpointer data) {
    OrvexAnswerStream* self = ORVEX_ANSWER_STREAM(stream);
    g_autoptr(GTask) task = g_task_new(stream, cancellable, callback, data);
    g_task_set_source_tag(task, answer_stream_read_async);
    g_task_set_priority(task, io_priority);
    g_task_set_check_cancellable(task, FALSE); // bytes that were taken are not lost
    orvex_answer_read_async(orvex_transfer_get_answer(self->transfer), self->part, buffer, count,
                            task);
}

static gssize answer_stream_read_finish(GInputStream* stream, GAsyncResult* result,
                                        GError** error) {
    (void)stream;
    ORVEX_ACQUIRE(result);
    return g_task_propagate_int(G_TASK(result), error);
}

static void give_up_rest(OrvexAnswerStream* self) {
    if (!orvex_answer_is_at_end(orvex_transfer_get_answer(self->transfer), self->part)) {
        orvex_transfer_abandon(self->transfer);
    }
}

static gboolean answer_stream_close(GInputStream* stream, GCancellable* cancellable,
                                    GError** error) {
    (void)cancellable, (void)error;
    give_up_rest(ORVEX_ANSWER_STREAM(stream));
    return TRUE;
}

static void answer_stream_close_async(GInputStream* stream, int io_priority,
                                      GCancellable* cancellable, GAsyncReadyCallback callback,
                                      gpointer data) {
    g_autoptr(GTask) task = g_task_new(stream, cancellable, callback, data);
    g_task_set_source_tag(task, answer_stream_close_async);
    g_task_set_priority(task, io_priority);
    give_up_rest(ORVEX_ANSWER_STREAM(stream));
    g_task_return_boolean(task, TRUE);
}

static gboolean answer_stream_close_finish(GInputStream* stream, GAsyncResult* result,
                                           GError** error) {
    (void)stream;
    return g_task_propagate_boolean(G_TASK(result), error);
}

static void answer_stream_dispose(GObject* object) {
    OrvexAnswerStream* self = ORVEX_ANSWER_STREAM(object);
    // Closes it, unless the user has.
    G_OBJECT_CLASS(orvex_answer_stream_parent_class)->dispose(object);
    g_clear_object(&self->request);
}

static void answer_stream_finalize(GObject* object) {
    orvex_counted_unref(ORVEX_ANSWER_STREAM(object)->transfer);
    G_OBJECT_CLASS(orvex_answer_stream_parent_class)->finalize(object);
}

static void orvex_answer_stream_init(OrvexAnswerStream* self) {
    (void)self;
}

static void orvex_answer_stream_class_init(OrvexAnswerStreamClass* class) {
    GInputStreamClass* stream = G_INPUT_STREAM_CLASS(class);
    stream->read_fn = answer_stream_read;
    stream->read_async = answer_stream_read_async;
    stream->read_finish = answer_stream_read_finish;
    stream->close_fn = answer_stream_close;
    stream->close_async = answer_stream_close_async;
    stream->close_finish = answer_stream_close_finish;
    G_OBJECT_CLASS(class)->dispose = answer_stream_dispose;
    G_OBJECT_CLASS(class)->finalize = answer_stream_finalize;
}

GInputStream* orvex_answer_stream_new(GObject* request, OrvexTransfer* transfer, guint part) {
    OrvexAnswerStream* self = g_object_new(ORVEX_TYPE_ANSWER_STREAM, NULL);
    self->request = g_object_ref(request);
    self->transfer = orvex_counted_ref(transfer);
    self->part = part;
    return G_INPUT_STREAM(self);
}
