#pragma once

#include <cstdint>
#include <functional>
#include <glib.h>
#include <string>

/// Stand-in for GLib's thread calls, put in front of them when a unit test is linked. Threads are
/// real; the test decides whether and when they come to life, and what happens right before a wait.
namespace fake_threads {

/// Back to plain threads; forgets the counts.
void reset();

/// From now on no thread can be created.
void failStart(bool fail);

/// Threads created from now on take their first step only when somebody joins them.
void holdUntilJoined(bool hold);

/// Done once, right before the calling thread waits for a condition next; the mutex is still held.
void beforeNextWait(std::function<void()> action);

/// The deadline of the calling thread's newest wait, also while `beforeNextWait` acts.
gint64 lastDeadline();

/// From now on the calling thread does this instead of waiting for a condition, with the mutex
/// free.
/// @param wait gets the deadline and says whether the wait ended before it.
void replaceWaits(std::function<bool(std::int64_t deadline)> wait);

/// How often threads have begun to wait for a condition, since `reset`.
int waits();

/// How often the calling thread has yielded the processor, since the test program began.
int yieldsOfThisThread();

/// How many threads were created and joined, and the name of the newest one.
int started();
int joined();
std::string lastName();

} // namespace fake_threads
