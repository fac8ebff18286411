#pragma once

// Locks and hand-overs between threads that the thread sanitizer can see: GLib's own are futexes,
// which it cannot.

#include <pthread.h>

#if defined(__SANITIZE_THREAD__)
void __tsan_acquire(void* address);
void __tsan_release(void* address);
#define ORVEX_ACQUIRE(address) __tsan_acquire(address)
#define ORVEX_RELEASE(address) __tsan_release(address)
#else
#define ORVEX_ACQUIRE(address) (void)(address)
#define ORVEX_RELEASE(address) (void)(address)
#endif
