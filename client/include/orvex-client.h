#pragma once

#include "orvex-enums.h"
#include "orvex-request.h"

#include <gio/gio.h>

G_BEGIN_DECLS

#define ORVEX_TYPE_CLIENT (orvex_client_get_type())
G_DECLARE_FINAL_TYPE(OrvexClient, orvex_client, ORVEX, CLIENT, GObject)

OrvexClient* orvex_client_new(GCancellable* cancellable, GError** error);
OrvexClient* orvex_client_new_for_connection(GDBusConnection* connection, GCancellable* cancellable,
                                             GError** error);
void orvex_client_new_async(GDBusConnection* connection, GCancellable* cancellable,
                            GAsyncReadyCallback callback, gpointer user_data);
OrvexClient* orvex_client_new_finish(GAsyncResult* result, GError** error);

GDBusConnection* orvex_client_get_connection(OrvexClient* client);
gboolean orvex_client_get_running(OrvexClient* client);
OrvexStatus orvex_client_get_status(OrvexClient* client);

void orvex_client_query_status_async(OrvexClient* client, GCancellable* cancellable,
                                     GAsyncReadyCallback callback, gpointer user_data);
gboolean orvex_client_query_status_finish(OrvexClient* client, GAsyncResult* result,
                                          OrvexStatus* status, GError** error);
gboolean orvex_client_query_status(OrvexClient* client, OrvexStatus* status,
                                   GCancellable* cancellable, GError** error);

void orvex_client_wait_usable_async(OrvexClient* client, OrvexPolicy policy,
                                    GCancellable* cancellable, GAsyncReadyCallback callback,
                                    gpointer user_data);
gboolean orvex_client_wait_usable_finish(OrvexClient* client, GAsyncResult* result, GError** error);
gboolean orvex_client_wait_usable(OrvexClient* client, OrvexPolicy policy,
                                  GCancellable* cancellable, GError** error);

void orvex_client_send_async(OrvexClient* client, OrvexRequest* request, GInputStream* question,
                             int io_priority, GCancellable* cancellable,
                             GAsyncReadyCallback callback, gpointer user_data);
GInputStream* orvex_client_send_finish(OrvexClient* client, GAsyncResult* result, GError** error);
GInputStream* orvex_client_send(OrvexClient* client, OrvexRequest* request, GInputStream* question,
                                GCancellable* cancellable, GError** error);

void orvex_client_ask_async(OrvexClient* client, OrvexRequest* request, GBytes* question,
                            GCancellable* cancellable, GAsyncReadyCallback callback,
                            gpointer user_data);
GBytes* orvex_client_ask_finish(OrvexClient* client, GAsyncResult* result, GError** error);
GBytes* orvex_client_ask(OrvexClient* client, OrvexRequest* request, GBytes* question,
                         GCancellable* cancellable, GError** error);

G_END_DECLS
