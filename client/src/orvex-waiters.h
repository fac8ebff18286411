#pragma once

#include "orvex-enums.h"

#include <gio/gio.h>

// Those who wait for a usable network. Everything happens on the worker, but for the beginning of a
// wait.

typedef struct OrvexWaiters OrvexWaiters;

/// What they need of the link whose status it is.
typedef struct {
    /// Asks a daemon that may have to be started; then they are served, or fail.
    void (*ask)(gpointer link);
    gboolean (*is_connected)(gpointer link);
} OrvexWaitersLink;

OrvexWaiters* orvex_waiters_new(const OrvexWaitersLink* functions, gpointer link);
/// Nobody waits any more: each task keeps the link.
void orvex_waiters_free(OrvexWaiters* waiters);

/// Any thread. The task returns a boolean when a connection fits the policy.
void orvex_waiters_wait(OrvexWaiters* waiters, OrvexPolicy policy, GTask* task);

gboolean orvex_waiters_is_empty(const OrvexWaiters* waiters);
/// Answers those for whom the network is usable.
void orvex_waiters_serve(OrvexWaiters* waiters, OrvexStatus status);
void orvex_waiters_fail(OrvexWaiters* waiters, const GError* error);
void orvex_waiters_fail_without_bus(OrvexWaiters* waiters);
