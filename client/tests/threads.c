// Uses the client library from several threads at once, in every form: orvexclient_threads THREADS
// ROUNDS
//
// Ends with 0 and prints nothing when every answer was right and every error the one that was
// provoked. tests/integration/test_client_threads.py runs it against the real daemon, whose test
// server sends questions back.
#include <orvexclient.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

static void check(gboolean right, const char* what, GError* error) {
    if (!right) {
        fprintf(stderr, "orvexclient_threads: %s: %s\n", what,
                error != NULL ? error->message : "wrong");
        exit(1);
    }
}

static OrvexRequest* new_request(void) {
    return orvex_request_new("echo", "other", "1", "text/plain");
}

static GBytes* new_question(int number, gsize size) {
    guint8* bytes = g_malloc(size);
    memset(bytes, number, size);
    return g_bytes_new_take(bytes, size);
}

/// The blocking form, in a thread whose own main context must not run meanwhile.
static gboolean must_not_run(gpointer unused) {
    (void)unused;
    check(FALSE, "a blocking call has run the caller's main context", NULL);
    return G_SOURCE_REMOVE;
}

static void ask_blocking(OrvexClient* client, int number) {
    g_autoptr(GMainContext) context = g_main_context_new();
    g_autoptr(GSource) source = g_idle_source_new();
    g_autoptr(GError) error = NULL;
    g_autoptr(OrvexRequest) request = new_request();
    g_autoptr(GBytes) question = new_question(number, 1000);
    g_source_set_callback(source, must_not_run, NULL, NULL);
    g_source_attach(source, context);
    g_main_context_push_thread_default(context);
    g_autoptr(GBytes) answer = orvex_client_ask(client, request, question, NULL, &error);
    check(answer != NULL && g_bytes_equal(answer, question), "ask", error);
    g_main_context_pop_thread_default(context);
    g_source_destroy(source);
}

static pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
static pthread_cond_t freed = PTHREAD_COND_INITIALIZER;

static void note_freed(gpointer is_freed) {
    pthread_mutex_lock(&lock);
    *(gboolean*)is_freed = TRUE;
    pthread_cond_broadcast(&freed);
    pthread_mutex_unlock(&lock);
}

/// A request that has ended keeps its question no longer, however long it lives itself.
static void forget_question(OrvexClient* client) {
    static const char text[] = "question";
    gboolean is_freed = FALSE;
    g_autoptr(GError) error = NULL;
    g_autoptr(OrvexRequest) request = new_request();
    GBytes* question = g_bytes_new_with_free_func(text, sizeof text, note_freed, &is_freed);
    g_autoptr(GBytes) answer = orvex_client_ask(client, request, question, NULL, &error);
    check(answer != NULL, "ask", error);
    g_bytes_unref(question);
    pthread_mutex_lock(&lock);
    while (!is_freed) { // the bus may still hold a piece; without an end, the test has a time-out
        pthread_cond_wait(&freed, &lock);
    }
    pthread_mutex_unlock(&lock);
}

/// The same as streams.
static void send_blocking(OrvexClient* client, int number) {
    g_autoptr(GError) error = NULL;
    g_autoptr(OrvexRequest) request = new_request();
    g_autoptr(GBytes) question = new_question(number, 300000);
    g_autoptr(GInputStream) source = g_memory_input_stream_new_from_bytes(question);
    g_autoptr(GOutputStream) sink = g_memory_output_stream_new_resizable();
    g_autoptr(GInputStream) part = orvex_client_send(client, request, source, NULL, &error);
    check(part != NULL, "send", error);
    check(g_output_stream_splice(sink, part, G_OUTPUT_STREAM_SPLICE_CLOSE_TARGET, NULL, &error) ==
              300000,
          "read", error);
    g_autoptr(GBytes) answer = g_memory_output_stream_steal_as_bytes(G_MEMORY_OUTPUT_STREAM(sink));
    check(g_bytes_equal(answer, question), "answer", NULL);
    check(orvex_request_next_part(request, NULL, &error) == NULL && error == NULL, "next part",
          error);
}

/// A stream that is dropped in the middle.
static void drop_stream(OrvexClient* client, int number) {
    g_autoptr(GError) error = NULL;
    g_autoptr(OrvexRequest) request = new_request();
    g_autoptr(GBytes) question = new_question(number, 300000);
    g_autoptr(GInputStream) source = g_memory_input_stream_new_from_bytes(question);
    g_autoptr(GInputStream) part = orvex_client_send(client, request, source, NULL, &error);
    char byte = 0;
    check(part != NULL && g_input_stream_read(part, &byte, 1, NULL, &error) == 1, "first byte",
          error);
}

typedef struct {
    GMainLoop* loop;
    GBytes* question;
    guint64 moved;
    int left;
} Round;

static void answered(GObject* client, GAsyncResult* result, gpointer data) {
    Round* round = data;
    g_autoptr(GError) error = NULL;
    g_autoptr(GBytes) answer = orvex_client_ask_finish(ORVEX_CLIENT(client), result, &error);
    check(answer != NULL && g_bytes_equal(answer, round->question), "ask_async", error);
    if (--round->left == 0) {
        g_main_loop_quit(round->loop);
    }
}

static void cancelled(GObject* client, GAsyncResult* result, gpointer data) {
    Round* round = data;
    g_autoptr(GError) error = NULL;
    g_autoptr(GBytes) answer = orvex_client_ask_finish(ORVEX_CLIENT(client), result, &error);
    check(g_error_matches(error, G_IO_ERROR, G_IO_ERROR_CANCELLED), "cancelled ask_async", error);
    g_assert_null(answer);
    if (--round->left == 0) {
        g_main_loop_quit(round->loop);
    }
}

static void moved(OrvexRequest* request, guint64 sent, guint64 received, Round* round) {
    (void)request;
    round->moved = sent + received;
}

/// Several at once in a main context of the thread's own, one of which is cancelled.
static void ask_from_a_loop(OrvexClient* client, int number) {
    g_autoptr(GMainContext) context = g_main_context_new();
    g_main_context_push_thread_default(context);
    g_autoptr(GCancellable) stop = g_cancellable_new();
    Round round = {g_main_loop_new(context, FALSE), new_question(number, 100000), 0, 4};
    for (int index = 0; index < 3; ++index) {
        g_autoptr(OrvexRequest) request = new_request();
        g_signal_connect(request, "progress", G_CALLBACK(moved), &round);
        orvex_client_ask_async(client, request, round.question, NULL, answered, &round);
    }
    g_autoptr(OrvexRequest) request = new_request();
    orvex_client_ask_async(client, request, round.question, stop, cancelled, &round);
    g_cancellable_cancel(stop);
    g_main_loop_run(round.loop);
    check(round.moved > 0, "progress", NULL);
    g_main_loop_unref(round.loop);
    g_bytes_unref(round.question);
    g_main_context_pop_thread_default(context);
}

/// An error, its number and its words, which a copy keeps.
static void fail(OrvexClient* client) {
    g_autoptr(GError) error = NULL;
    g_autoptr(OrvexRequest) request = new_request();
    g_autoptr(GBytes) question = new_question(1, 200000);
    orvex_request_set_answer_limit(request, 1000);
    g_autoptr(GBytes) answer = orvex_client_ask(client, request, question, NULL, &error);
    check(answer == NULL && g_error_matches(error, ORVEX_ERROR, ORVEX_ERROR_TOO_LONG), "limit",
          error);
    g_autoptr(GError) copy = g_error_copy(error);
    check(orvex_error_get_code(copy) == 0 && orvex_error_get_detail(copy) == NULL, "copy", copy);
}

static void told(GObject* client, GAsyncResult* result, gpointer data) {
    g_autoptr(GError) error = NULL;
    check(orvex_client_wait_usable_finish(ORVEX_CLIENT(client), result, &error), "wait", error);
    *(gboolean*)data = TRUE;
}

/// Contexts that end as soon as they have told a result. The library's thread, which has put it
/// there, must not touch them any more. They are polled without a wait, so that the two threads
/// meet.
static void end_contexts(OrvexClient* client) {
    for (int turn = 0; turn < 2000; ++turn) {
        gboolean is_told = FALSE;
        GMainContext* context = g_main_context_new();
        g_main_context_push_thread_default(context);
        orvex_client_wait_usable_async(client, ORVEX_POLICY_ANY, NULL, told, &is_told);
        while (!is_told) {
            g_main_context_iteration(context, FALSE);
        }
        g_main_context_pop_thread_default(context);
        g_main_context_unref(context);
    }
}

static int rounds = 1;

static gpointer use(gpointer shared) {
    g_autoptr(GError) error = NULL;
    g_autoptr(OrvexClient) own = orvex_client_new(NULL, &error);
    check(own != NULL, "client", error);
    for (int number = 1; number <= rounds; ++number) {
        ask_blocking(shared, number);
        send_blocking(own, number);
        drop_stream(shared, number);
        ask_from_a_loop(shared, number);
        fail(own);
        forget_question(own);
        end_contexts(shared);
    }
    return NULL;
}

int main(int count, char* words[]) {
    const int threads = count > 1 ? atoi(words[1]) : 1;
    rounds = count > 2 ? atoi(words[2]) : 1;
    g_autoptr(GError) error = NULL;
    g_autoptr(OrvexClient) shared = orvex_client_new(NULL, &error);
    check(shared != NULL, "client", error);
    GThread** all = g_new0(GThread*, (gsize)threads);
    for (int index = 0; index < threads; ++index) {
        all[index] = g_thread_new("user", use, shared);
    }
    for (int index = 0; index < threads; ++index) {
        g_thread_join(all[index]);
    }
    g_free(all);
    // What the last streams have left goes on until the process ends.
    return 0;
}
