#pragma once

#include <gio/gio.h>

#include <memory>

namespace trilba {

/// Frees with a plain C function; the owner stays as small as a pointer.
template <auto Free> struct FreeWith {
    template <typename T> void operator()(T* handle) const noexcept { Free(handle); }
};

/// Takes a source out of its context, so that its callback does not run any more.
struct DestroySource {
    void operator()(GSource* source) const noexcept {
        g_source_destroy(source);
        g_source_unref(source);
    }
};

using KeyFile = std::unique_ptr<GKeyFile, FreeWith<g_key_file_unref>>;
using Text = std::unique_ptr<char, FreeWith<g_free>>;
using TextList = std::unique_ptr<char*, FreeWith<g_strfreev>>;
using Error = std::unique_ptr<GError, FreeWith<g_error_free>>;
using File = std::unique_ptr<GFile, FreeWith<g_object_unref>>;
using Monitor = std::unique_ptr<GFileMonitor, FreeWith<g_object_unref>>;
using Source = std::unique_ptr<GSource, DestroySource>;

} // namespace trilba
