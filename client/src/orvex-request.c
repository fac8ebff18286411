#include "orvex-answer-stream.h"
#include "orvex-request-private.h"
#include "orvex-sync.h"
#include "orvex-worker.h"

/**
 * OrvexRequest:
 *
 * A question to the positioning server, and its answer on the way back.
 *
 * What a request is goes to the server as it is given: the daemon checks none of it. The type also
 * decides how long the daemon waits for the question's next bytes: 90 seconds for exactly
 * `fingerprint`, 5 seconds for every other type.
 *
 * A request that is answered or has failed may be sent again. Once its answer has begun, dropping
 * its last reference gives it up; streams that come from it hold one. Before that, the operation
 * holds one until its callback: cancel it to give the request up.
 *
 * ## Threads
 *
 * Set the properties before the request is sent. From then on one thread at a time uses the request
 * and its streams; the getters of its progress may be called from any. Signals are emitted in the
 * thread-default main context of the thread that sent the request; behind a blocking call there is
 * none, and no signal.
 */

enum {
    PROP_ELEMENT = 1,
    PROP_TYPE,
    PROP_VERSION,
    PROP_CONTENT_TYPE,
    PROP_ENCODING,
    PROP_POLICY,
    PROP_OPEN_DURATION,
    PROP_ATTACH,
    PROP_CHUNK_SIZE,
    PROP_PIECE_SIZE,
    PROP_TIMEOUT,
    PROP_ANSWER_LIMIT,
    PROP_STATE,
    PROP_BYTES_SENT,
    PROP_BYTES_RECEIVED,
    PROP_KEY,
    PROP_ERROR_CODE,
    PROP_ERROR_DETAIL,
    PROPERTIES,
};

enum { SIGNAL_PROGRESS, SIGNAL_STATE_CHANGED, SIGNALS };

enum {
    LARGEST_CHUNK = 16 * 1024 * 1024, ///< the daemon never hands out more at once
    DEFAULT_CHUNK = 64 * 1024,
    /// Each piece costs the wake-ups of three threads, and takes its size in memory three times.
    DEFAULT_PIECE = 192 * 1024,
    DEFAULT_TIMEOUT = 180, ///< an exchange may have to wait for the one before it
    DEFAULT_LIMIT = 64 * 1024 * 1024,
};

struct _OrvexRequest {
    GObject parent;
    char* element;
    char* type;
    char* version;
    char* content_type;
    char* encoding;
    OrvexPolicy policy;
    guint open_duration;
    gboolean attach;
    guint chunk_size;
    guint piece_size;
    guint timeout;
    guint64 answer_limit;

    pthread_mutex_t lock;
    OrvexTransfer* transfer; ///< the last one; guarded by the lock
};

static GParamSpec* properties[PROPERTIES];
static guint signals[SIGNALS];

G_DEFINE_FINAL_TYPE(OrvexRequest, orvex_request, G_TYPE_OBJECT)

// -- the transfer --------------------------------------------------------------------------------

/// A reference to the last transfer, or NULL.
static OrvexTransfer* ref_transfer(OrvexRequest* self) {
    pthread_mutex_lock(&self->lock);
    OrvexTransfer* transfer = self->transfer;
    if (transfer != NULL) {
        orvex_counted_ref(transfer);
    }
    pthread_mutex_unlock(&self->lock);
    return transfer;
}

static OrvexFacts get_facts(OrvexRequest* self) {
    OrvexFacts facts = {.state = ORVEX_REQUEST_STATE_IDLE, .is_over = TRUE};
    OrvexTransfer* transfer = ref_transfer(self);
    if (transfer != NULL) {
        orvex_progress_get_facts(orvex_transfer_get_progress(transfer), &facts);
        orvex_counted_unref(transfer);
    }
    return facts;
}

/// Whether the transfer with this number is the last one.
static gboolean is_current(OrvexRequest* self, guint64 run) {
    pthread_mutex_lock(&self->lock);
    const gboolean current =
        self->transfer != NULL &&
        orvex_progress_get_run(orvex_transfer_get_progress(self->transfer)) == run;
    pthread_mutex_unlock(&self->lock);
    return current;
}

static void tell_state(GObject* object, guint64 run, OrvexRequestState state) {
    OrvexRequest* self = ORVEX_REQUEST(object);
    if (!is_current(self, run)) {
        return;
    }
    g_object_notify_by_pspec(object, properties[PROP_STATE]);
    g_signal_emit(self, signals[SIGNAL_STATE_CHANGED], 0, state);
}

static void tell_progress(GObject* object, guint64 run) {
    OrvexRequest* self = ORVEX_REQUEST(object);
    if (!is_current(self, run)) {
        return;
    }
    guint64 sent = 0;
    guint64 received = 0;
    OrvexTransfer* transfer = ref_transfer(self);
    orvex_progress_take_moves(orvex_transfer_get_progress(transfer), &sent, &received);
    orvex_counted_unref(transfer);
    g_signal_emit(self, signals[SIGNAL_PROGRESS], 0, sent, received);
}

static OrvexTerms make_terms(OrvexRequest* self) {
    return (OrvexTerms){
        .element = g_strdup(self->element),
        .type = g_strdup(self->type),
        .version = g_strdup(self->version),
        .encoding = g_strdup(self->encoding),
        .content_type = g_strdup(self->content_type),
        .chunk_size = self->chunk_size,
        .policy = self->policy,
        .open_duration = self->open_duration,
        .attach = self->attach,
    };
}

/// What is to be done with the question. It takes the source, and the context of the progress.
static OrvexPlan make_plan(OrvexRequest* self, const OrvexQuestionSource* question,
                           GMainContext* context) {
    return (OrvexPlan){
        .terms = make_terms(self),
        .question = *question,
        .listener = {G_OBJECT(self), tell_state, tell_progress, context},
        .timeout = self->timeout,
        .answer_limit = self->answer_limit,
        .collect = question->bytes != NULL,
    };
}

/// Makes this the last transfer, unless the one before is on its way. Takes the transfer.
static gboolean put_transfer(OrvexRequest* self, OrvexTransfer* transfer) {
    OrvexFacts facts = {.is_over = TRUE};
    pthread_mutex_lock(&self->lock);
    OrvexTransfer* other = self->transfer;
    if (other != NULL) {
        orvex_progress_get_facts(orvex_transfer_get_progress(other), &facts);
        g_free(facts.error_detail);
    }
    if (facts.is_over) {
        self->transfer = transfer;
    } else {
        other = transfer;
    }
    pthread_mutex_unlock(&self->lock);
    g_clear_pointer(&other, orvex_counted_unref);
    return facts.is_over;
}

/// What a task is about: the request may be sent again before its result is looked at.
typedef struct {
    OrvexRequest* request;
    OrvexTransfer* transfer;
} Sent;

static void sent_free(gpointer data) {
    Sent* sent = data;
    g_object_unref(sent->request);
    orvex_counted_unref(sent->transfer);
    g_free(sent);
}

void orvex_request_send(OrvexRequest* self, OrvexSeats* seats, GBytes* bytes, GInputStream* stream,
                        int io_priority, gboolean blocking, GTask* task) {
    GMainContext* context = g_main_context_ref_thread_default();
    const OrvexQuestionSource question = {
        .bytes = bytes != NULL ? g_bytes_ref(bytes) : NULL,
        .stream = stream != NULL ? g_object_ref(stream) : NULL,
        .context = g_main_context_ref(blocking ? orvex_worker_context() : context),
        .io_priority = io_priority,
        .piece_size = self->piece_size,
    };
    const OrvexPlan plan = make_plan(self, &question, context);
    OrvexTransfer* transfer = orvex_transfer_new(seats, &plan);
    Sent* sent = g_new(Sent, 1);
    *sent = (Sent){g_object_ref(self), orvex_counted_ref(transfer)};
    g_task_set_task_data(task, sent, sent_free);
    if (put_transfer(self, transfer)) {
        orvex_transfer_start(sent->transfer, task);
    } else {
        g_task_return_new_error(task, G_IO_ERROR, G_IO_ERROR_PENDING,
                                "The request is on its way already");
    }
}

GInputStream* orvex_request_first_part(GTask* task) {
    const Sent* sent = g_task_get_task_data(task);
    return orvex_answer_stream_new(G_OBJECT(sent->request), sent->transfer, 0);
}

// -- parts ---------------------------------------------------------------------------------------

/**
 * orvex_request_next_part_async:
 * @request: a request that was sent with [method@Client.send_async]
 * @cancellable: (nullable): ends this call; the request goes on
 * @callback: (scope async): called when the next part has begun, or there is none
 * @user_data: for @callback
 *
 * Goes to the next part of the answer. What was not read of the part before is left out, also when
 * this call is cancelled: reading on from there may fail with %G_IO_ERROR_CLOSED then. Most answers
 * have one part.
 *
 * Any thread that is the only one to use the request may call it; @callback is called in its
 * thread-default main context.
 */
void orvex_request_next_part_async(OrvexRequest* request, GCancellable* cancellable,
                                   GAsyncReadyCallback callback, gpointer user_data) {
    g_return_if_fail(ORVEX_IS_REQUEST(request));
    g_autoptr(GTask) task = g_task_new(request, cancellable, callback, user_data);
    g_task_set_source_tag(task, orvex_request_next_part_async);
    g_task_set_check_cancellable(task, FALSE);
    OrvexTransfer* transfer = ref_transfer(request);
    if (transfer == NULL) {
        g_task_return_new_error(task, G_IO_ERROR, G_IO_ERROR_NOT_INITIALIZED,
                                "The request was not sent");
        return;
    }
    g_task_set_task_data(task, transfer, orvex_counted_unref);
    orvex_answer_next_part(orvex_transfer_get_answer(transfer), task);
}

/**
 * orvex_request_next_part_finish:
 * @request: the request
 * @result: what the callback got
 * @error: for a failure
 *
 * Ends [method@Request.next_part_async].
 *
 * Returns: (nullable) (transfer full): the next part of the answer, or %NULL without an error if
 *   the answer is complete
 */
GInputStream* orvex_request_next_part_finish(OrvexRequest* request, GAsyncResult* result,
                                             GError** error) {
    g_return_val_if_fail(g_task_is_valid(result, request), NULL);
    ORVEX_ACQUIRE(result);
    g_autoptr(GError) failure = NULL;
    const gssize part = g_task_propagate_int(G_TASK(result), &failure);
    if (failure != NULL) {
        g_propagate_error(error, g_steal_pointer(&failure));
        return NULL;
    }
    OrvexTransfer* transfer = g_task_get_task_data(G_TASK(result));
    return part < 0 ? NULL : orvex_answer_stream_new(G_OBJECT(request), transfer, (guint)part);
}

/**
 * orvex_request_next_part:
 * @request: a request that was sent with [method@Client.send]
 * @cancellable: (nullable): ends this call; the request goes on
 * @error: for a failure
 *
 * Goes to the next part of the answer, as [method@Request.next_part_async], and waits for it.
 *
 * Any thread that is the only one to use the request may call it. It blocks and does not run the
 * thread's main context.
 *
 * Returns: (nullable) (transfer full): the next part of the answer, or %NULL without an error if
 *   the answer is complete
 */
GInputStream* orvex_request_next_part(OrvexRequest* request, GCancellable* cancellable,
                                      GError** error) {
    g_return_val_if_fail(ORVEX_IS_REQUEST(request), NULL);
    OrvexWait wait;
    orvex_wait_begin(&wait);
    orvex_request_next_part_async(request, cancellable, orvex_wait_done, &wait);
    g_autoptr(GAsyncResult) result = orvex_wait_end(&wait);
    return orvex_request_next_part_finish(request, result, error);
}

// -- properties ----------------------------------------------------------------------------------

/**
 * orvex_request_new:
 * @element: name of the XML element that stands for the request in the message to the server
 * @type: value of its attribute `type`
 * @version: value of its attribute `version`
 * @content_type: Content-Type of the question
 *
 * Makes a request. Nothing happens until it is sent.
 *
 * Any thread may call it.
 *
 * Returns: (transfer full): the new request
 */
OrvexRequest* orvex_request_new(const char* element, const char* type, const char* version,
                                const char* content_type) {
    g_return_val_if_fail(element != NULL && type != NULL, NULL);
    g_return_val_if_fail(version != NULL && content_type != NULL, NULL);
    return g_object_new(ORVEX_TYPE_REQUEST, "element", element, "type", type, "version", version,
                        "content-type", content_type, NULL);
}

#define TEXT_GETTER(name, field)                                                                   \
    const char* orvex_request_get_##name(OrvexRequest* request) {                                  \
        g_return_val_if_fail(ORVEX_IS_REQUEST(request), NULL);                                     \
        return request->field;                                                                     \
    }

#define GETTER(name, ctype)                                                                        \
    ctype orvex_request_get_##name(OrvexRequest* request) {                                        \
        g_return_val_if_fail(ORVEX_IS_REQUEST(request), (ctype)0);                                 \
        return request->name;                                                                      \
    }

#define SETTER(name, NAME, ctype, valid)                                                           \
    void orvex_request_set_##name(OrvexRequest* request, ctype value) {                            \
        g_return_if_fail(ORVEX_IS_REQUEST(request));                                               \
        g_return_if_fail(valid);                                                                   \
        if (request->name != value) {                                                              \
            request->name = value;                                                                 \
            g_object_notify_by_pspec(G_OBJECT(request), properties[PROP_##NAME]);                  \
        }                                                                                          \
    }

#define ACCESSORS(name, NAME, ctype)                                                               \
    GETTER(name, ctype)                                                                            \
    SETTER(name, NAME, ctype, TRUE)

/**
 * orvex_request_get_element:
 * @request: a request
 *
 * Gets the name of the XML element.
 *
 * Returns: the name
 */
TEXT_GETTER(element, element)

/**
 * orvex_request_get_request_type: (get-property type)
 * @request: a request
 *
 * Gets the value of the element's attribute `type`.
 *
 * Returns: the value
 */
TEXT_GETTER(request_type, type)

/**
 * orvex_request_get_version:
 * @request: a request
 *
 * Gets the value of the element's attribute `version`.
 *
 * Returns: the value
 */
TEXT_GETTER(version, version)

/**
 * orvex_request_get_content_type:
 * @request: a request
 *
 * Gets the Content-Type of the question.
 *
 * Returns: the media type
 */
TEXT_GETTER(content_type, content_type)

/**
 * orvex_request_get_encoding:
 * @request: a request
 *
 * Gets the Content-Transfer-Encoding of the question.
 *
 * Returns: the encoding
 */
TEXT_GETTER(encoding, encoding)

/**
 * orvex_request_set_encoding:
 * @request: a request
 * @encoding: the encoding
 *
 * Sets the Content-Transfer-Encoding of the question. See [property@Request:encoding].
 */
void orvex_request_set_encoding(OrvexRequest* request, const char* encoding) {
    g_return_if_fail(ORVEX_IS_REQUEST(request));
    g_return_if_fail(encoding != NULL);
    if (g_strcmp0(request->encoding, encoding) != 0) {
        g_free(request->encoding);
        request->encoding = g_strdup(encoding);
        g_object_notify_by_pspec(G_OBJECT(request), properties[PROP_ENCODING]);
    }
}

/**
 * orvex_request_get_policy:
 * @request: a request
 *
 * Gets the network connections that the request may use.
 *
 * Returns: the policy
 */
/**
 * orvex_request_set_policy:
 * @request: a request
 * @policy: the policy
 *
 * Sets the network connections that the request may use.
 */
ACCESSORS(policy, POLICY, OrvexPolicy)

/**
 * orvex_request_get_open_duration:
 * @request: a request
 *
 * Gets how long the network connection should be kept open afterwards.
 *
 * Returns: a number without a fixed unit
 */
/**
 * orvex_request_set_open_duration:
 * @request: a request
 * @duration: a number without a fixed unit
 *
 * Sets how long the network connection should be kept open afterwards. See
 * [property@Request:open-duration].
 */
ACCESSORS(open_duration, OPEN_DURATION, guint)

/**
 * orvex_request_get_attach:
 * @request: a request
 *
 * Gets whether the request travels with an exchange that somebody else starts.
 *
 * Returns: whether it does
 */
/**
 * orvex_request_set_attach:
 * @request: a request
 * @attach: whether it does
 *
 * Sets whether the request travels with an exchange that somebody else starts. See
 * [property@Request:attach].
 */
ACCESSORS(attach, ATTACH, gboolean)

/**
 * orvex_request_get_chunk_size:
 * @request: a request
 *
 * Gets the largest number of the answer's bytes that come at once.
 *
 * Returns: bytes
 */
/**
 * orvex_request_set_chunk_size:
 * @request: a request
 * @bytes: from 1 to 16777216
 *
 * Sets the largest number of the answer's bytes that come at once. See
 * [property@Request:chunk-size].
 */
GETTER(chunk_size, guint)
SETTER(chunk_size, CHUNK_SIZE, guint, value >= 1 && value <= LARGEST_CHUNK)

/**
 * orvex_request_get_piece_size:
 * @request: a request
 *
 * Gets the largest number of the question's bytes that are sent at once.
 *
 * Returns: bytes
 */
/**
 * orvex_request_set_piece_size:
 * @request: a request
 * @bytes: from 1 to 16777216
 *
 * Sets the largest number of the question's bytes that are sent at once. See
 * [property@Request:piece-size].
 */
GETTER(piece_size, guint)
SETTER(piece_size, PIECE_SIZE, guint, value >= 1 && value <= LARGEST_CHUNK)

/**
 * orvex_request_get_timeout:
 * @request: a request
 *
 * Gets the longest time without progress.
 *
 * Returns: seconds; 0 is no limit
 */
/**
 * orvex_request_set_timeout:
 * @request: a request
 * @seconds: seconds; 0 is no limit
 *
 * Sets the longest time without progress. See [property@Request:timeout].
 */
ACCESSORS(timeout, TIMEOUT, guint)

/**
 * orvex_request_get_answer_limit:
 * @request: a request
 *
 * Gets the most bytes that an answer may have which is collected.
 *
 * Returns: bytes; 0 is no limit
 */
/**
 * orvex_request_set_answer_limit:
 * @request: a request
 * @bytes: bytes; 0 is no limit
 *
 * Sets the most bytes that an answer may have which is collected. See
 * [property@Request:answer-limit].
 */
ACCESSORS(answer_limit, ANSWER_LIMIT, guint64)

/**
 * orvex_request_get_state:
 * @request: a request
 *
 * Gets how far the request is. Any thread may call it.
 *
 * Returns: the state
 */
OrvexRequestState orvex_request_get_state(OrvexRequest* request) {
    g_return_val_if_fail(ORVEX_IS_REQUEST(request), ORVEX_REQUEST_STATE_IDLE);
    OrvexFacts facts = get_facts(request);
    g_free(facts.error_detail);
    return facts.state;
}

/**
 * orvex_request_get_bytes_sent:
 * @request: a request
 *
 * Gets how many bytes of the question the daemon has taken. Any thread may call it.
 *
 * Returns: bytes
 */
guint64 orvex_request_get_bytes_sent(OrvexRequest* request) {
    g_return_val_if_fail(ORVEX_IS_REQUEST(request), 0);
    OrvexFacts facts = get_facts(request);
    g_free(facts.error_detail);
    return facts.sent;
}

/**
 * orvex_request_get_bytes_received:
 * @request: a request
 *
 * Gets how many bytes of the answer have come. Any thread may call it.
 *
 * Returns: bytes
 */
guint64 orvex_request_get_bytes_received(OrvexRequest* request) {
    g_return_val_if_fail(ORVEX_IS_REQUEST(request), 0);
    OrvexFacts facts = get_facts(request);
    g_free(facts.error_detail);
    return facts.received;
}

/**
 * orvex_request_dup_key: (get-property key)
 * @request: a request
 *
 * Gets what the daemon calls the request, as `orvexctl monitor` and `orvexctl cancel` do. Any
 * thread may call it.
 *
 * Returns: (nullable) (transfer full): for example "3:17", or %NULL as long as the daemon has not
 *   accepted it
 */
char* orvex_request_dup_key(OrvexRequest* request) {
    g_return_val_if_fail(ORVEX_IS_REQUEST(request), NULL);
    OrvexFacts facts = get_facts(request);
    g_free(facts.error_detail);
    return facts.request == 0 ? NULL : g_strdup_printf("%u:%u", facts.connection, facts.request);
}

/**
 * orvex_request_get_error_code:
 * @request: a request
 *
 * Gets the daemon's number of the failure with which the request ended, as [func@Error.get_code]
 * does. Any thread may call it.
 *
 * Returns: the number, 0 if there is none
 */
guint orvex_request_get_error_code(OrvexRequest* request) {
    g_return_val_if_fail(ORVEX_IS_REQUEST(request), 0);
    OrvexFacts facts = get_facts(request);
    g_free(facts.error_detail);
    return facts.error_code;
}

/**
 * orvex_request_dup_error_detail: (get-property error-detail)
 * @request: a request
 *
 * Gets the words that came with the failure with which the request ended, as
 * [func@Error.get_detail] does. Any thread may call it.
 *
 * Returns: (nullable) (transfer full): the words, or %NULL if there are none
 */
char* orvex_request_dup_error_detail(OrvexRequest* request) {
    g_return_val_if_fail(ORVEX_IS_REQUEST(request), NULL);
    OrvexFacts facts = get_facts(request);
    return facts.error_detail;
}

static void request_get_property(GObject* object, guint id, GValue* value, GParamSpec* spec) {
    OrvexRequest* self = ORVEX_REQUEST(object);
    switch (id) {
    case PROP_ELEMENT:
        g_value_set_string(value, self->element);
        break;
    case PROP_TYPE:
        g_value_set_string(value, self->type);
        break;
    case PROP_VERSION:
        g_value_set_string(value, self->version);
        break;
    case PROP_CONTENT_TYPE:
        g_value_set_string(value, self->content_type);
        break;
    case PROP_ENCODING:
        g_value_set_string(value, self->encoding);
        break;
    case PROP_POLICY:
        g_value_set_enum(value, self->policy);
        break;
    case PROP_OPEN_DURATION:
        g_value_set_uint(value, self->open_duration);
        break;
    case PROP_ATTACH:
        g_value_set_boolean(value, self->attach);
        break;
    case PROP_CHUNK_SIZE:
        g_value_set_uint(value, self->chunk_size);
        break;
    case PROP_PIECE_SIZE:
        g_value_set_uint(value, self->piece_size);
        break;
    case PROP_TIMEOUT:
        g_value_set_uint(value, self->timeout);
        break;
    case PROP_ANSWER_LIMIT:
        g_value_set_uint64(value, self->answer_limit);
        break;
    case PROP_STATE:
        g_value_set_enum(value, orvex_request_get_state(self));
        break;
    case PROP_BYTES_SENT:
        g_value_set_uint64(value, orvex_request_get_bytes_sent(self));
        break;
    case PROP_BYTES_RECEIVED:
        g_value_set_uint64(value, orvex_request_get_bytes_received(self));
        break;
    case PROP_KEY:
        g_value_take_string(value, orvex_request_dup_key(self));
        break;
    case PROP_ERROR_CODE:
        g_value_set_uint(value, orvex_request_get_error_code(self));
        break;
    case PROP_ERROR_DETAIL:
        g_value_take_string(value, orvex_request_dup_error_detail(self));
        break;
    default:
        G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, spec);
    }
}

/// A text that may be left out, but never is missing.
static char* dup_text(const GValue* value) {
    const char* text = g_value_get_string(value);
    return g_strdup(text != NULL ? text : "");
}

static void request_set_property(GObject* object, guint id, const GValue* value, GParamSpec* spec) {
    OrvexRequest* self = ORVEX_REQUEST(object);
    switch (id) {
    case PROP_ELEMENT:
        self->element = dup_text(value);
        break;
    case PROP_TYPE:
        self->type = dup_text(value);
        break;
    case PROP_VERSION:
        self->version = dup_text(value);
        break;
    case PROP_CONTENT_TYPE:
        self->content_type = dup_text(value);
        break;
    case PROP_ENCODING:
        orvex_request_set_encoding(self, g_value_get_string(value));
        break;
    case PROP_POLICY:
        orvex_request_set_policy(self, (OrvexPolicy)g_value_get_enum(value));
        break;
    case PROP_OPEN_DURATION:
        orvex_request_set_open_duration(self, g_value_get_uint(value));
        break;
    case PROP_ATTACH:
        orvex_request_set_attach(self, g_value_get_boolean(value));
        break;
    case PROP_CHUNK_SIZE:
        orvex_request_set_chunk_size(self, g_value_get_uint(value));
        break;
    case PROP_PIECE_SIZE:
        orvex_request_set_piece_size(self, g_value_get_uint(value));
        break;
    case PROP_TIMEOUT:
        orvex_request_set_timeout(self, g_value_get_uint(value));
        break;
    case PROP_ANSWER_LIMIT:
        orvex_request_set_answer_limit(self, g_value_get_uint64(value));
        break;
    default:
        G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, spec);
    }
}

// -- life ----------------------------------------------------------------------------------------

static void orvex_request_init(OrvexRequest* self) {
    pthread_mutex_init(&self->lock, NULL);
    self->encoding = g_strdup("binary");
    self->policy = ORVEX_POLICY_NOT_FLAGGED;
    self->chunk_size = DEFAULT_CHUNK;
    self->piece_size = DEFAULT_PIECE;
    self->timeout = DEFAULT_TIMEOUT;
    self->answer_limit = DEFAULT_LIMIT;
}

static void request_finalize(GObject* object) {
    OrvexRequest* self = ORVEX_REQUEST(object);
    if (self->transfer != NULL) {
        orvex_transfer_abandon(self->transfer);
        orvex_counted_unref(self->transfer);
    }
    pthread_mutex_destroy(&self->lock);
    g_free(self->element);
    g_free(self->type);
    g_free(self->version);
    g_free(self->content_type);
    g_free(self->encoding);
    G_OBJECT_CLASS(orvex_request_parent_class)->finalize(object);
}

static void make_signals(void) {
    /**
     * OrvexRequest::progress:
     * @request: the request
     * @sent: bytes of the question that the daemon has taken
     * @received: bytes of the answer that have come
     *
     * Bytes have moved. It is emitted once for all that moved since it was emitted before, fifty
     * times a second at the most, and before each change of the state.
     */
    signals[SIGNAL_PROGRESS] =
        g_signal_new("progress", ORVEX_TYPE_REQUEST, G_SIGNAL_RUN_LAST, 0, NULL, NULL, NULL,
                     G_TYPE_NONE, 2, G_TYPE_UINT64, G_TYPE_UINT64);
    /**
     * OrvexRequest::state-changed:
     * @request: the request
     * @state: the state to which it has come
     *
     * The request has come to another state. Each one is told, in order; the property may be ahead.
     */
    signals[SIGNAL_STATE_CHANGED] =
        g_signal_new("state-changed", ORVEX_TYPE_REQUEST, G_SIGNAL_RUN_LAST, 0, NULL, NULL, NULL,
                     G_TYPE_NONE, 1, ORVEX_TYPE_REQUEST_STATE);
}

static void make_fixed_properties(void) {
    const GParamFlags flags = G_PARAM_READWRITE | G_PARAM_CONSTRUCT_ONLY | G_PARAM_STATIC_STRINGS;
    /**
     * OrvexRequest:element:
     *
     * Name of the XML element that stands for the request in the message to the server.
     */
    properties[PROP_ELEMENT] = g_param_spec_string("element", NULL, NULL, "", flags);
    /**
     * OrvexRequest:type: (getter get_request_type)
     *
     * Value of the element's attribute `type`. It also decides how long the daemon waits for the
     * question's next bytes: 90 seconds for exactly `fingerprint`, 5 seconds for every other type.
     */
    properties[PROP_TYPE] = g_param_spec_string("type", NULL, NULL, "", flags);
    /**
     * OrvexRequest:version:
     *
     * Value of the element's attribute `version`.
     */
    properties[PROP_VERSION] = g_param_spec_string("version", NULL, NULL, "", flags);
    /**
     * OrvexRequest:content-type:
     *
     * Content-Type of the question.
     */
    properties[PROP_CONTENT_TYPE] = g_param_spec_string("content-type", NULL, NULL, "", flags);
}

static void make_wishes(void) {
    const GParamFlags flags = G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS | G_PARAM_EXPLICIT_NOTIFY;
    /**
     * OrvexRequest:encoding:
     *
     * Content-Transfer-Encoding of the question. With exactly `binary` its bytes travel as they
     * are. With every other value the daemon changes line ends, and how depends on the timing:
     * there is no reason to choose one unless the server asks for it.
     */
    properties[PROP_ENCODING] = g_param_spec_string("encoding", NULL, NULL, "binary", flags);
    /**
     * OrvexRequest:policy:
     *
     * The network connections that the request may use.
     */
    properties[PROP_POLICY] =
        g_param_spec_enum("policy", NULL, NULL, ORVEX_TYPE_POLICY, ORVEX_POLICY_NOT_FLAGGED, flags);
    /**
     * OrvexRequest:open-duration:
     *
     * How long the network connection should be kept open afterwards, a number without a fixed
     * unit. At present nothing acts on it.
     */
    properties[PROP_OPEN_DURATION] =
        g_param_spec_uint("open-duration", NULL, NULL, 0, G_MAXUINT, 0, flags);
    /**
     * OrvexRequest:attach:
     *
     * Whether the request travels with an exchange that somebody else starts. It starts one itself
     * over a connection of kind 1 only, so it may wait for long: raise [property@Request:timeout].
     */
    properties[PROP_ATTACH] = g_param_spec_boolean("attach", NULL, NULL, FALSE, flags);
    /**
     * OrvexRequest:chunk-size:
     *
     * Largest number of the answer's bytes that come at once. At most two chunks wait in memory for
     * the reader.
     */
    properties[PROP_CHUNK_SIZE] =
        g_param_spec_uint("chunk-size", NULL, NULL, 1, LARGEST_CHUNK, DEFAULT_CHUNK, flags);
    /**
     * OrvexRequest:piece-size:
     *
     * Largest number of the question's bytes that are read and sent at once. What the stream has is
     * sent, even if it is less.
     */
    properties[PROP_PIECE_SIZE] =
        g_param_spec_uint("piece-size", NULL, NULL, 1, LARGEST_CHUNK, DEFAULT_PIECE, flags);
    /**
     * OrvexRequest:timeout:
     *
     * Longest time without progress in seconds; 0 is no limit. Then the request fails with
     * %ORVEX_ERROR_TIMED_OUT. The time in which everything waits for the reader of the answer does
     * not count.
     */
    properties[PROP_TIMEOUT] =
        g_param_spec_uint("timeout", NULL, NULL, 0, G_MAXUINT, DEFAULT_TIMEOUT, flags);
    /**
     * OrvexRequest:answer-limit:
     *
     * The most bytes that an answer may have which [method@Client.ask] collects; 0 is no limit.
     * A longer one fails with %ORVEX_ERROR_TOO_LONG. A stream has no limit.
     */
    properties[PROP_ANSWER_LIMIT] =
        g_param_spec_uint64("answer-limit", NULL, NULL, 0, G_MAXUINT64, DEFAULT_LIMIT, flags);
}

static void make_facts(void) {
    const GParamFlags flags = G_PARAM_READABLE | G_PARAM_STATIC_STRINGS;
    /**
     * OrvexRequest:state:
     *
     * How far the request is.
     */
    properties[PROP_STATE] =
        g_param_spec_enum("state", NULL, NULL, ORVEX_TYPE_REQUEST_STATE, 0, flags);
    /**
     * OrvexRequest:bytes-sent:
     *
     * How many bytes of the question the daemon has taken. The signal [signal@Request::progress]
     * tells changes.
     */
    properties[PROP_BYTES_SENT] =
        g_param_spec_uint64("bytes-sent", NULL, NULL, 0, G_MAXUINT64, 0, flags);
    /**
     * OrvexRequest:bytes-received:
     *
     * How many bytes of the answer have come. The signal [signal@Request::progress] tells changes.
     */
    properties[PROP_BYTES_RECEIVED] =
        g_param_spec_uint64("bytes-received", NULL, NULL, 0, G_MAXUINT64, 0, flags);
    /**
     * OrvexRequest:key: (getter dup_key)
     *
     * What the daemon calls the request.
     */
    properties[PROP_KEY] = g_param_spec_string("key", NULL, NULL, NULL, flags);
    /**
     * OrvexRequest:error-code:
     *
     * The daemon's number of the failure with which the request ended; 0 if there is none.
     */
    properties[PROP_ERROR_CODE] =
        g_param_spec_uint("error-code", NULL, NULL, 0, G_MAXUINT, 0, flags);
    /**
     * OrvexRequest:error-detail: (getter dup_error_detail)
     *
     * The words that came with the failure with which the request ended.
     */
    properties[PROP_ERROR_DETAIL] = g_param_spec_string("error-detail", NULL, NULL, NULL, flags);
}

static void orvex_request_class_init(OrvexRequestClass* class) {
    GObjectClass* object = G_OBJECT_CLASS(class);
    object->get_property = request_get_property;
    object->set_property = request_set_property;
    object->finalize = request_finalize;
    make_fixed_properties();
    make_wishes();
    make_facts();
    g_object_class_install_properties(object, PROPERTIES, properties);
    make_signals();
}
