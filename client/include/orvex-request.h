#pragma once

#include "orvex-enums.h"

#include <gio/gio.h>

G_BEGIN_DECLS

#define ORVEX_TYPE_REQUEST (orvex_request_get_type())
G_DECLARE_FINAL_TYPE(OrvexRequest, orvex_request, ORVEX, REQUEST, GObject)

OrvexRequest* orvex_request_new(const char* element, const char* type, const char* version,
                                const char* content_type);

const char* orvex_request_get_element(OrvexRequest* request);
const char* orvex_request_get_request_type(OrvexRequest* request);
const char* orvex_request_get_version(OrvexRequest* request);
const char* orvex_request_get_content_type(OrvexRequest* request);
const char* orvex_request_get_encoding(OrvexRequest* request);
void orvex_request_set_encoding(OrvexRequest* request, const char* encoding);
OrvexPolicy orvex_request_get_policy(OrvexRequest* request);
void orvex_request_set_policy(OrvexRequest* request, OrvexPolicy policy);
guint orvex_request_get_open_duration(OrvexRequest* request);
void orvex_request_set_open_duration(OrvexRequest* request, guint duration);
gboolean orvex_request_get_attach(OrvexRequest* request);
void orvex_request_set_attach(OrvexRequest* request, gboolean attach);
guint orvex_request_get_chunk_size(OrvexRequest* request);
void orvex_request_set_chunk_size(OrvexRequest* request, guint bytes);
guint orvex_request_get_piece_size(OrvexRequest* request);
void orvex_request_set_piece_size(OrvexRequest* request, guint bytes);
guint orvex_request_get_timeout(OrvexRequest* request);
void orvex_request_set_timeout(OrvexRequest* request, guint seconds);
guint64 orvex_request_get_answer_limit(OrvexRequest* request);
void orvex_request_set_answer_limit(OrvexRequest* request, guint64 bytes);

OrvexRequestState orvex_request_get_state(OrvexRequest* request);
guint64 orvex_request_get_bytes_sent(OrvexRequest* request);
guint64 orvex_request_get_bytes_received(OrvexRequest* request);
char* orvex_request_dup_key(OrvexRequest* request);
guint orvex_request_get_error_code(OrvexRequest* request);
char* orvex_request_dup_error_detail(OrvexRequest* request);

void orvex_request_next_part_async(OrvexRequest* request, GCancellable* cancellable,
                                   GAsyncReadyCallback callback, gpointer user_data);
GInputStream* orvex_request_next_part_finish(OrvexRequest* request, GAsyncResult* result,
                                             GError** error);
GInputStream* orvex_request_next_part(OrvexRequest* request, GCancellable* cancellable,
                                      GError** error);

G_END_DECLS
