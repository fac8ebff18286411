#include "orvex-audience.h"

#include "orvex-counted.h"
#include "orvex-worker.h"

/// What is on its way holds neither the audience nor its context: that one may never run.
typedef struct {
    OrvexCounted counted;
    GWeakRef client;
    void (*changed)(gpointer client, const char* property);
    atomic_bool status_posted;
    atomic_bool running_posted;
} Listener;

struct OrvexAudience {
    GMainContext* context;
    Listener* listener;
};

static void listener_free(gpointer data) {
    Listener* listener = data;
    g_weak_ref_clear(&listener->client);
    g_free(listener);
}

OrvexAudience* orvex_audience_new(GMainContext* context, void (*changed)(gpointer, const char*),
                                  gpointer client) {
    Listener* listener = g_new0(Listener, 1);
    orvex_counted_init(listener, listener_free);
    g_weak_ref_init(&listener->client, client);
    listener->changed = changed;
    OrvexAudience* audience = g_new(OrvexAudience, 1);
    *audience = (OrvexAudience){g_main_context_ref(context), listener};
    return audience;
}

void orvex_audience_free(OrvexAudience* audience) {
    g_main_context_unref(audience->context);
    orvex_counted_unref(audience->listener);
    g_free(audience);
}

static void tell(Listener* listener, atomic_bool* posted, const char* property) {
    atomic_store(posted, FALSE);
    g_autoptr(GObject) client = g_weak_ref_get(&listener->client);
    if (client != NULL) {
        listener->changed(client, property);
    }
}

static void tell_status(gpointer listener) {
    tell(listener, &((Listener*)listener)->status_posted, "status");
}

static void tell_running(gpointer listener) {
    tell(listener, &((Listener*)listener)->running_posted, "running");
}

static void post(OrvexAudience* audience, atomic_bool* posted, void (*action)(gpointer)) {
    if (!atomic_exchange(posted, TRUE)) {
        orvex_post(audience->context, G_PRIORITY_DEFAULT, action,
                   orvex_counted_ref(audience->listener), orvex_counted_unref);
    }
}

void orvex_audience_tell_status(OrvexAudience* audience) {
    post(audience, &audience->listener->status_posted, tell_status);
}

void orvex_audience_tell_running(OrvexAudience* audience) {
    post(audience, &audience->listener->running_posted, tell_running);
}
