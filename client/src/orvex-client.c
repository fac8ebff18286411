#include "orvex-client.h"

#include "orvex-link.h"
#include "orvex-request-private.h"
#include "orvex-seats.h"
#include "orvex-sync.h"
#include "orvex-worker.h"

/**
 * OrvexClient:
 *
 * A way to the positioning gateway.
 *
 * One client serves any number of requests at once, and goes on with the next daemon when the one
 * that it knew has gone. The daemon need not run: the first request starts it, if the bus can.
 *
 * ## Threads
 *
 * A client may be used by any number of threads at the same time. Callbacks come in the
 * thread-default main context of the thread that made the call, signals about properties in that of
 * the thread that made the client. Blocking functions run no main context of the caller. What goes
 * over the bus does so on a thread of the library's own, so a program that is busy does not keep
 * the daemon waiting.
 *
 * ## The end of the process
 *
 * When the process ends by `exit()`, or returns from `main()`, the requests that are left are taken
 * back. A signal that ends the process does not run any of its code: handle `SIGINT` and `SIGTERM`.
 *
 * The thread does not survive `fork()`: a child process that does not call one of the `exec`
 * functions must not use what its parent has made, nor make clients if its parent had any.
 *
 * ## Limits
 *
 * A bus limits the calls of one connection that wait for an answer, and the daemon never answers
 * the last one of a request that failed or was given up. A client on the system bus therefore opens
 * further connections for many requests at once, and in exchange for a connection that has too many
 * such calls. On a connection that was given to it, it cannot: there requests fail with
 * %ORVEX_ERROR_LIMITS after about a hundred that failed or were given up.
 */

enum { PROP_CONNECTION = 1, PROP_RUNNING, PROP_STATUS, PROPERTIES };

struct _OrvexClient {
    GObject parent;
    GDBusConnection* given; ///< NULL: the system bus
    OrvexLink* link;
    OrvexSeats* seats; ///< on that link, and on others for many requests at once
};

static GParamSpec* properties[PROPERTIES];

static void initable_init(GInitableIface* interface);
static void async_initable_init(GAsyncInitableIface* interface);

G_DEFINE_FINAL_TYPE_WITH_CODE(OrvexClient, orvex_client, G_TYPE_OBJECT,
                              G_IMPLEMENT_INTERFACE(G_TYPE_INITABLE, initable_init)
                                  G_IMPLEMENT_INTERFACE(G_TYPE_ASYNC_INITABLE, async_initable_init))

// -- life ----------------------------------------------------------------------------------------

static void property_changed(gpointer client, const char* property) {
    g_object_notify(client, property);
}

static void orvex_client_init(OrvexClient* self) {
    g_autoptr(GMainContext) context = g_main_context_ref_thread_default();
    self->link = orvex_link_new(context, property_changed, self);
    self->seats = orvex_seats_new(self->link);
}

static void client_finalize(GObject* object) {
    OrvexClient* self = ORVEX_CLIENT(object);
    g_clear_object(&self->given);
    orvex_counted_unref(self->seats);
    orvex_counted_unref(self->link);
    G_OBJECT_CLASS(orvex_client_parent_class)->finalize(object);
}

static void client_get_property(GObject* object, guint id, GValue* value, GParamSpec* spec) {
    OrvexClient* self = ORVEX_CLIENT(object);
    switch (id) {
    case PROP_CONNECTION:
        g_value_set_object(value, orvex_client_get_connection(self));
        break;
    case PROP_RUNNING:
        g_value_set_boolean(value, orvex_client_get_running(self));
        break;
    case PROP_STATUS:
        g_value_set_flags(value, orvex_client_get_status(self));
        break;
    default:
        G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, spec);
    }
}

static void client_set_property(GObject* object, guint id, const GValue* value, GParamSpec* spec) {
    if (id == PROP_CONNECTION) {
        ORVEX_CLIENT(object)->given = g_value_dup_object(value);
    } else {
        G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, spec);
    }
}

static void orvex_client_class_init(OrvexClientClass* class) {
    GObjectClass* object = G_OBJECT_CLASS(class);
    object->get_property = client_get_property;
    object->set_property = client_set_property;
    object->finalize = client_finalize;
    /**
     * OrvexClient:connection:
     *
     * The connection to the bus. Without one, a client opens a connection to the system bus that is
     * its own, and closes it in the end.
     */
    properties[PROP_CONNECTION] =
        g_param_spec_object("connection", NULL, NULL, G_TYPE_DBUS_CONNECTION,
                            G_PARAM_READWRITE | G_PARAM_CONSTRUCT_ONLY | G_PARAM_STATIC_STRINGS);
    /**
     * OrvexClient:running:
     *
     * Whether the daemon is there. A request starts it, if the bus can.
     */
    properties[PROP_RUNNING] = g_param_spec_boolean("running", NULL, NULL, FALSE,
                                                    G_PARAM_READABLE | G_PARAM_STATIC_STRINGS);
    /**
     * OrvexClient:status:
     *
     * The state of the network connection, as the daemon has told it last. It is
     * %ORVEX_STATUS_NONE while the daemon is not there; [method@Client.query_status] starts it.
     */
    properties[PROP_STATUS] =
        g_param_spec_flags("status", NULL, NULL, ORVEX_TYPE_STATUS, ORVEX_STATUS_NONE,
                           G_PARAM_READABLE | G_PARAM_STATIC_STRINGS);
    g_object_class_install_properties(object, PROPERTIES, properties);
}

// -- construction --------------------------------------------------------------------------------

static void client_init_async(GAsyncInitable* initable, int io_priority, GCancellable* cancellable,
                              GAsyncReadyCallback callback, gpointer data) {
    OrvexClient* self = ORVEX_CLIENT(initable);
    g_autoptr(GTask) task = g_task_new(self, cancellable, callback, data);
    g_task_set_source_tag(task, client_init_async);
    g_task_set_priority(task, io_priority);
    orvex_link_open(self->link, self->given, task);
}

static gboolean client_init_finish(GAsyncInitable* initable, GAsyncResult* result, GError** error) {
    (void)initable;
    ORVEX_ACQUIRE(result);
    return g_task_propagate_boolean(G_TASK(result), error);
}

static gboolean client_init(GInitable* initable, GCancellable* cancellable, GError** error) {
    OrvexWait wait;
    orvex_wait_begin(&wait);
    client_init_async(G_ASYNC_INITABLE(initable), G_PRIORITY_DEFAULT, cancellable, orvex_wait_done,
                      &wait);
    g_autoptr(GAsyncResult) result = orvex_wait_end(&wait);
    return client_init_finish(G_ASYNC_INITABLE(initable), result, error);
}

static void initable_init(GInitableIface* interface) {
    interface->init = client_init;
}

static void async_initable_init(GAsyncInitableIface* interface) {
    interface->init_async = client_init_async;
    interface->init_finish = client_init_finish;
}

/**
 * orvex_client_new:
 * @cancellable: (nullable): ends the call
 * @error: for a failure
 *
 * Makes a client on the system bus, and waits until it is connected.
 *
 * Any thread may call it. It blocks and does not run the thread's main context.
 *
 * Returns: (transfer full): the new client, or %NULL with an error
 */
OrvexClient* orvex_client_new(GCancellable* cancellable, GError** error) {
    return g_initable_new(ORVEX_TYPE_CLIENT, cancellable, error, NULL);
}

/**
 * orvex_client_new_for_connection: (constructor)
 * @connection: a connection to a message bus
 * @cancellable: (nullable): ends the call
 * @error: for a failure
 *
 * Makes a client on a connection that is there already, and waits until it knows the daemon. See
 * [ctor@Client.new]. It has to be a connection to a message bus, not one to a peer.
 *
 * The bus allows such a client fewer requests: see [class@Client].
 *
 * Returns: (transfer full): the new client, or %NULL with an error
 */
OrvexClient* orvex_client_new_for_connection(GDBusConnection* connection, GCancellable* cancellable,
                                             GError** error) {
    g_return_val_if_fail(G_IS_DBUS_CONNECTION(connection), NULL);
    return g_initable_new(ORVEX_TYPE_CLIENT, cancellable, error, "connection", connection, NULL);
}

/**
 * orvex_client_new_async:
 * @connection: (nullable): a connection to a message bus, or %NULL for the system bus
 * @cancellable: (nullable): ends the call
 * @callback: (scope async): called when the client is connected
 * @user_data: for @callback
 *
 * Makes a client. Any thread may call it; @callback is called in its thread-default main context.
 */
void orvex_client_new_async(GDBusConnection* connection, GCancellable* cancellable,
                            GAsyncReadyCallback callback, gpointer user_data) {
    g_async_initable_new_async(ORVEX_TYPE_CLIENT, G_PRIORITY_DEFAULT, cancellable, callback,
                               user_data, "connection", connection, NULL);
}

/**
 * orvex_client_new_finish:
 * @result: what the callback got
 * @error: for a failure
 *
 * Ends [func@Client.new_async].
 *
 * Returns: (transfer full): the new client, or %NULL with an error
 */
OrvexClient* orvex_client_new_finish(GAsyncResult* result, GError** error) {
    g_autoptr(GObject) source = g_async_result_get_source_object(result);
    GObject* client = g_async_initable_new_finish(G_ASYNC_INITABLE(source), result, error);
    return client != NULL ? ORVEX_CLIENT(client) : NULL;
}

// -- properties ----------------------------------------------------------------------------------

/**
 * orvex_client_get_connection:
 * @client: a client
 *
 * Gets the connection to the bus. Any thread may call it.
 *
 * Returns: (transfer none) (nullable): the connection, or %NULL before the client is connected
 */
GDBusConnection* orvex_client_get_connection(OrvexClient* client) {
    g_return_val_if_fail(ORVEX_IS_CLIENT(client), NULL);
    return orvex_link_get_bus(client->link);
}

/**
 * orvex_client_get_running:
 * @client: a client
 *
 * Gets whether the daemon is there. Any thread may call it.
 *
 * Returns: whether it is
 */
gboolean orvex_client_get_running(OrvexClient* client) {
    g_return_val_if_fail(ORVEX_IS_CLIENT(client), FALSE);
    return orvex_link_is_running(client->link);
}

/**
 * orvex_client_get_status:
 * @client: a client
 *
 * Gets the state of the network connection, as the daemon has told it last. Any thread may call it.
 *
 * Returns: the state
 */
OrvexStatus orvex_client_get_status(OrvexClient* client) {
    g_return_val_if_fail(ORVEX_IS_CLIENT(client), ORVEX_STATUS_NONE);
    return orvex_link_get_status(client->link);
}

// -- status --------------------------------------------------------------------------------------

/// A task of this client. @return NULL, and an answered task, if the client is not connected
static GTask* make_task(OrvexClient* client, gpointer tag, GCancellable* cancellable,
                        GAsyncReadyCallback callback, gpointer data) {
    GTask* task = g_task_new(client, cancellable, callback, data);
    g_task_set_source_tag(task, tag);
    g_task_set_check_cancellable(task, FALSE);
    if (orvex_link_get_bus(client->link) == NULL) {
        g_task_return_new_error(task, G_IO_ERROR, G_IO_ERROR_NOT_INITIALIZED,
                                "The client is not connected");
        g_clear_object(&task);
    } else if (g_task_return_error_if_cancelled(task)) {
        g_clear_object(&task);
    }
    return task;
}

/**
 * orvex_client_query_status_async:
 * @client: a client
 * @cancellable: (nullable): ends the call
 * @callback: (scope async): called when the daemon has answered
 * @user_data: for @callback
 *
 * Asks the daemon for the state of the network connection. Starts the daemon if it is not there and
 * the bus can.
 *
 * Any thread may call it; @callback is called in its thread-default main context.
 */
void orvex_client_query_status_async(OrvexClient* client, GCancellable* cancellable,
                                     GAsyncReadyCallback callback, gpointer user_data) {
    g_return_if_fail(ORVEX_IS_CLIENT(client));
    g_autoptr(GTask) task =
        make_task(client, orvex_client_query_status_async, cancellable, callback, user_data);
    if (task != NULL) {
        orvex_link_query_status(client->link, task);
    }
}

/**
 * orvex_client_query_status_finish:
 * @client: the client
 * @result: what the callback got
 * @status: (out) (optional): where to put the state
 * @error: for a failure
 *
 * Ends [method@Client.query_status_async].
 *
 * Returns: whether the daemon has answered
 */
gboolean orvex_client_query_status_finish(OrvexClient* client, GAsyncResult* result,
                                          OrvexStatus* status, GError** error) {
    g_return_val_if_fail(g_task_is_valid(result, client), FALSE);
    ORVEX_ACQUIRE(result);
    g_autoptr(GError) failure = NULL;
    const gssize number = g_task_propagate_int(G_TASK(result), &failure);
    if (failure != NULL) {
        g_propagate_error(error, g_steal_pointer(&failure));
        return FALSE;
    }
    if (status != NULL) {
        *status = (OrvexStatus)number;
    }
    return TRUE;
}

/**
 * orvex_client_query_status:
 * @client: a client
 * @status: (out) (optional): where to put the state
 * @cancellable: (nullable): ends the call
 * @error: for a failure
 *
 * Asks the daemon for the state of the network connection, as
 * [method@Client.query_status_async], and waits for the answer.
 *
 * Any thread may call it. It blocks and does not run the thread's main context.
 *
 * Returns: whether the daemon has answered
 */
gboolean orvex_client_query_status(OrvexClient* client, OrvexStatus* status,
                                   GCancellable* cancellable, GError** error) {
    g_return_val_if_fail(ORVEX_IS_CLIENT(client), FALSE);
    OrvexWait wait;
    orvex_wait_begin(&wait);
    orvex_client_query_status_async(client, cancellable, orvex_wait_done, &wait);
    g_autoptr(GAsyncResult) result = orvex_wait_end(&wait);
    return orvex_client_query_status_finish(client, result, status, error);
}

/**
 * orvex_client_wait_usable_async:
 * @client: a client
 * @policy: the policy of a request to come
 * @cancellable: (nullable): ends the call
 * @callback: (scope async): called when the network fits
 * @user_data: for @callback
 *
 * Waits until there is a network connection that the policy allows. Starts the daemon if it is not
 * there and the bus can.
 *
 * Any thread may call it; @callback is called in its thread-default main context.
 */
void orvex_client_wait_usable_async(OrvexClient* client, OrvexPolicy policy,
                                    GCancellable* cancellable, GAsyncReadyCallback callback,
                                    gpointer user_data) {
    g_return_if_fail(ORVEX_IS_CLIENT(client));
    g_autoptr(GTask) task =
        make_task(client, orvex_client_wait_usable_async, cancellable, callback, user_data);
    if (task != NULL) {
        orvex_link_wait_usable(client->link, policy, task);
    }
}

/**
 * orvex_client_wait_usable_finish:
 * @client: the client
 * @result: what the callback got
 * @error: for a failure
 *
 * Ends [method@Client.wait_usable_async].
 *
 * Returns: whether the network fits
 */
gboolean orvex_client_wait_usable_finish(OrvexClient* client, GAsyncResult* result,
                                         GError** error) {
    g_return_val_if_fail(g_task_is_valid(result, client), FALSE);
    ORVEX_ACQUIRE(result);
    return g_task_propagate_boolean(G_TASK(result), error);
}

/**
 * orvex_client_wait_usable:
 * @client: a client
 * @policy: the policy of a request to come
 * @cancellable: (nullable): ends the call
 * @error: for a failure
 *
 * Waits until there is a network connection that the policy allows, as
 * [method@Client.wait_usable_async].
 *
 * Any thread may call it. It blocks and does not run the thread's main context.
 *
 * Returns: whether the network fits
 */
gboolean orvex_client_wait_usable(OrvexClient* client, OrvexPolicy policy,
                                  GCancellable* cancellable, GError** error) {
    g_return_val_if_fail(ORVEX_IS_CLIENT(client), FALSE);
    OrvexWait wait;
    orvex_wait_begin(&wait);
    orvex_client_wait_usable_async(client, policy, cancellable, orvex_wait_done, &wait);
    g_autoptr(GAsyncResult) result = orvex_wait_end(&wait);
    return orvex_client_wait_usable_finish(client, result, error);
}

// -- requests ------------------------------------------------------------------------------------

/// Sends a request whose question is @stream, or @bytes.
static void send_request(OrvexClient* client, OrvexRequest* request, GInputStream* stream,
                         GBytes* bytes, int io_priority, gboolean blocking, GTask* task) {
    g_task_set_priority(task, io_priority);
    orvex_request_send(request, client->seats, bytes, stream, io_priority, blocking, task);
}

static void send_stream(OrvexClient* client, OrvexRequest* request, GInputStream* question,
                        int io_priority, GCancellable* cancellable, gboolean blocking,
                        GAsyncReadyCallback callback, gpointer data) {
    g_autoptr(GTask) task = make_task(client, orvex_client_send_async, cancellable, callback, data);
    if (task != NULL) {
        send_request(client, request, question, NULL, io_priority, blocking, task);
    }
}

/**
 * orvex_client_send_async:
 * @client: a client
 * @request: what kind of request it is
 * @question: the bytes to send; it is read until its end, and not closed
 * @io_priority: priority of reading @question
 * @cancellable: (nullable): ends the request at any time, also while its answer is read
 * @callback: (scope async): called when the answer begins, or when the request has failed
 * @user_data: for @callback
 *
 * Sends a request. The answer comes as a stream, which holds at most two chunks in memory: a reader
 * that stops reads nothing further from the daemon. The question is read ahead by at most
 * 256 KiB, or by one piece if that is more.
 *
 * Any thread may call it. @callback is called in its thread-default main context, in which also
 * @question is read: this context has to run until the question is sent.
 */
void orvex_client_send_async(OrvexClient* client, OrvexRequest* request, GInputStream* question,
                             int io_priority, GCancellable* cancellable,
                             GAsyncReadyCallback callback, gpointer user_data) {
    g_return_if_fail(ORVEX_IS_CLIENT(client));
    g_return_if_fail(ORVEX_IS_REQUEST(request));
    g_return_if_fail(G_IS_INPUT_STREAM(question));
    send_stream(client, request, question, io_priority, cancellable, FALSE, callback, user_data);
}

/**
 * orvex_client_send_finish:
 * @client: the client
 * @result: what the callback got
 * @error: for a failure
 *
 * Ends [method@Client.send_async]. Reading may still fail: the answer is whole only when the stream
 * has come to its end without an error.
 *
 * Returns: (transfer full): the first part of the answer; [method@Request.next_part_async] leads to
 *   the next one
 */
GInputStream* orvex_client_send_finish(OrvexClient* client, GAsyncResult* result, GError** error) {
    g_return_val_if_fail(g_task_is_valid(result, client), NULL);
    ORVEX_ACQUIRE(result);
    if (!g_task_propagate_boolean(G_TASK(result), error)) {
        return NULL;
    }
    return orvex_request_first_part(G_TASK(result));
}

/**
 * orvex_client_send:
 * @client: a client
 * @request: what kind of request it is
 * @question: the bytes to send; it is read until its end, and not closed
 * @cancellable: (nullable): ends the request at any time, also while its answer is read
 * @error: for a failure
 *
 * Sends a request, as [method@Client.send_async], and waits until the answer begins.
 *
 * Any thread may call it. It blocks and does not run the thread's main context. @question is read
 * on a thread of the library's own until it ends.
 *
 * Returns: (transfer full): the first part of the answer; [method@Request.next_part] leads to the
 *   next one
 */
GInputStream* orvex_client_send(OrvexClient* client, OrvexRequest* request, GInputStream* question,
                                GCancellable* cancellable, GError** error) {
    g_return_val_if_fail(ORVEX_IS_CLIENT(client), NULL);
    g_return_val_if_fail(ORVEX_IS_REQUEST(request), NULL);
    g_return_val_if_fail(G_IS_INPUT_STREAM(question), NULL);
    OrvexWait wait;
    orvex_wait_begin(&wait);
    send_stream(client, request, question, G_PRIORITY_DEFAULT, cancellable, TRUE, orvex_wait_done,
                &wait);
    g_autoptr(GAsyncResult) result = orvex_wait_end(&wait);
    return orvex_client_send_finish(client, result, error);
}

/**
 * orvex_client_ask_async:
 * @client: a client
 * @request: what kind of request it is
 * @question: the bytes to send
 * @cancellable: (nullable): ends the request
 * @callback: (scope async): called when the whole answer is there, or when the request has failed
 * @user_data: for @callback
 *
 * Sends a request and collects its whole answer. An answer that is longer than
 * [property@Request:answer-limit] fails.
 *
 * Any thread may call it; @callback is called in its thread-default main context. The context need
 * not run meanwhile.
 */
void orvex_client_ask_async(OrvexClient* client, OrvexRequest* request, GBytes* question,
                            GCancellable* cancellable, GAsyncReadyCallback callback,
                            gpointer user_data) {
    g_return_if_fail(ORVEX_IS_CLIENT(client));
    g_return_if_fail(ORVEX_IS_REQUEST(request));
    g_return_if_fail(question != NULL);
    g_autoptr(GTask) task =
        make_task(client, orvex_client_ask_async, cancellable, callback, user_data);
    if (task != NULL) {
        send_request(client, request, NULL, question, G_PRIORITY_DEFAULT, FALSE, task);
    }
}

/**
 * orvex_client_ask_finish:
 * @client: the client
 * @result: what the callback got
 * @error: for a failure
 *
 * Ends [method@Client.ask_async].
 *
 * Returns: (transfer full): the answer; its parts in order, if there are several
 */
GBytes* orvex_client_ask_finish(OrvexClient* client, GAsyncResult* result, GError** error) {
    g_return_val_if_fail(g_task_is_valid(result, client), NULL);
    ORVEX_ACQUIRE(result);
    return g_task_propagate_pointer(G_TASK(result), error);
}

/**
 * orvex_client_ask:
 * @client: a client
 * @request: what kind of request it is
 * @question: the bytes to send
 * @cancellable: (nullable): ends the request
 * @error: for a failure
 *
 * Sends a request, as [method@Client.ask_async], and waits for its whole answer.
 *
 * Any thread may call it. It blocks and does not run the thread's main context.
 *
 * Returns: (transfer full): the answer; its parts in order, if there are several
 */
GBytes* orvex_client_ask(OrvexClient* client, OrvexRequest* request, GBytes* question,
                         GCancellable* cancellable, GError** error) {
    g_return_val_if_fail(ORVEX_IS_CLIENT(client), NULL);
    g_return_val_if_fail(ORVEX_IS_REQUEST(request), NULL);
    g_return_val_if_fail(question != NULL, NULL);
    OrvexWait wait;
    orvex_wait_begin(&wait);
    orvex_client_ask_async(client, request, question, cancellable, orvex_wait_done, &wait);
    g_autoptr(GAsyncResult) result = orvex_wait_end(&wait);
    return orvex_client_ask_finish(client, result, error);
}
