#pragma once

#include "support/FreeWith.h"

#include <gio/gio.h>
#include <memory>

namespace orvexd::ctl {

/// One reference to an object of GLib's type system.
template <typename Object> using ObjectRef = std::unique_ptr<Object, FreeWith<g_object_unref>>;

using VariantRef = std::unique_ptr<GVariant, FreeWith<g_variant_unref>>;
using BytesRef = std::unique_ptr<GBytes, FreeWith<g_bytes_unref>>;
using MainLoopRef = std::unique_ptr<GMainLoop, FreeWith<g_main_loop_unref>>;

/// Text that a GLib function allocated.
using TextRef = std::unique_ptr<char, FreeWith<g_free>>;

/// An error slot for GLib calls; frees what they put into it.
class ErrorSlot {
public:
    ErrorSlot() noexcept = default;
    ~ErrorSlot() { g_clear_error(&error_); }
    ErrorSlot(const ErrorSlot&) = delete;
    ErrorSlot& operator=(const ErrorSlot&) = delete;

    /// For the last argument of the call.
    GError** out() noexcept { return &error_; }

    explicit operator bool() const noexcept { return error_ != nullptr; }
    const GError& operator*() const noexcept { return *error_; }
    const GError* operator->() const noexcept { return error_; }

private:
    GError* error_ = nullptr;
};

} // namespace orvexd::ctl
