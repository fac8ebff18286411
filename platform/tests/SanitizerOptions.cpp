// ThreadSanitizer does not see the futex-based locks inside GLib, so what GLib and GIO do between
// their own threads looks like races. Calls that come from these libraries are left out; accesses
// by the code of this repository are all checked.

#if defined(__SANITIZE_THREAD__)

extern "C" const char* __tsan_default_suppressions();

extern "C" const char* __tsan_default_suppressions() {
    return "called_from_lib:libglib-2.0\n"
           "called_from_lib:libgobject-2.0\n"
           "called_from_lib:libgio-2.0\n";
}

#endif
