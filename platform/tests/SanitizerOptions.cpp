// ThreadSanitizer does not see the futex-based locks inside GLib, so what GLib allocates on one
// thread and uses on another looks like a race. Only its allocating leaves are named; accesses by
// the code of this repository are all checked.

#if defined(__SANITIZE_THREAD__)

extern "C" const char* __tsan_default_suppressions();

extern "C" const char* __tsan_default_suppressions() {
    return "race:^g_malloc$\n"
           "race:^g_malloc0$\n"
           "race:^g_realloc$\n";
}

#endif
